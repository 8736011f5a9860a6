# storage.local.set (durable) and get beside raw SQLite doing the same work,
# and the set with its "storage.onChanged" relay to many open tabs.
find_package(SQLite3 REQUIRED)
add_executable(storage_bench ${CMAKE_CURRENT_LIST_DIR}/storage_bench.cpp)
target_link_libraries(storage_bench PRIVATE appex_router appex_sim SQLite::SQLite3 benchmark::benchmark)
