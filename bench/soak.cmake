# Load and soak: the router under many pages, the background page, tab
# events, storage changes and tab closings at once (soak), and the storage
# kill loop (storage_kill_loop), which SIGKILLs the storage crash writer at
# random moments and checks every acknowledged write. scripts/soak runs both.
# soak_memory.cpp replaces the global operator new and delete to count live
# bytes: it belongs in this executable only.
set(APPEX_SOAK_SOURCES
  soak.cpp
  soak_harness.cpp
  soak_harness_asks.cpp
  soak_harness_closing.cpp
  soak_harness_pages.cpp
  soak_harness_report.cpp
  soak_log_counter.cpp
  soak_memory.cpp
  soak_options.cpp
  soak_requests.cpp)
list(TRANSFORM APPEX_SOAK_SOURCES PREPEND ${CMAKE_CURRENT_LIST_DIR}/)
add_executable(soak ${APPEX_SOAK_SOURCES})
target_link_libraries(soak PRIVATE appex_entry appex_sim appex_platform_storage)

find_package(SQLite3 REQUIRED)
add_executable(storage_kill_loop ${CMAKE_CURRENT_LIST_DIR}/storage_kill_loop.cpp)
target_link_libraries(storage_kill_loop PRIVATE appex_platform_storage SQLite::SQLite3)
if(TARGET storage_crash_writer)
  target_compile_definitions(storage_kill_loop PRIVATE
    APPEX_STORAGE_CRASH_WRITER="$<TARGET_FILE:storage_crash_writer>")
  add_dependencies(storage_kill_loop storage_crash_writer)
endif()
