# The command table's dispatch cost beside direct calls.
add_executable(api_bench ${CMAKE_CURRENT_LIST_DIR}/api_bench.cpp ${CMAKE_CURRENT_LIST_DIR}/ratio_reporter.cpp)
target_link_libraries(api_bench PRIVATE appex_api appex_sim benchmark::benchmark)
