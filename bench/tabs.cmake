# Page-message intake and tabs.query against the simulated browser.
add_executable(tabs_bench ${CMAKE_CURRENT_LIST_DIR}/tabs_bench.cpp ${CMAKE_CURRENT_LIST_DIR}/ratio_reporter.cpp)
target_link_libraries(tabs_bench PRIVATE appex_tabs appex_sim benchmark::benchmark)
