# The bridge round trip on real WebKit, beside a bare script-message round
# trip measured in the same run. Needs a display: run it under xvfb-run -a.
if(APPEX_WITH_WEBKIT)
  add_executable(bridge_bench ${CMAKE_CURRENT_LIST_DIR}/bridge_bench.cpp ${CMAKE_CURRENT_LIST_DIR}/latency_stats.cpp)
  target_link_libraries(bridge_bench PRIVATE appex_bridge appex_webkit)
endif()
