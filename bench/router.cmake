# A content page's ask through the whole system to the background page and
# back, on real WebKit, beside the raw WebKit hop measured in the same run.
# Needs a display: run it under xvfb-run -a.
if(APPEX_WITH_WEBKIT)
  add_executable(router_bench ${CMAKE_CURRENT_LIST_DIR}/router_bench.cpp ${CMAKE_CURRENT_LIST_DIR}/latency_stats.cpp)
  target_link_libraries(router_bench PRIVATE appex_entry appex_sim appex_webkit)
endif()
