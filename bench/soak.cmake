# Load and soak: the router under many pages, the background page, tab
# events, storage changes and tab closings at once (soak), and the storage
# kill loop (storage_kill_loop), which SIGKILLs the storage crash writer at
# random moments and checks every acknowledged write. scripts/soak runs both.
add_executable(soak ${CMAKE_CURRENT_LIST_DIR}/soak.cpp)
target_link_libraries(soak PRIVATE appex_entry appex_sim appex_platform_storage)

find_package(SQLite3 REQUIRED)
add_executable(storage_kill_loop ${CMAKE_CURRENT_LIST_DIR}/storage_kill_loop.cpp)
target_link_libraries(storage_kill_loop PRIVATE appex_platform_storage SQLite::SQLite3)
if(TARGET storage_crash_writer)
  target_compile_definitions(storage_kill_loop PRIVATE
    APPEX_STORAGE_CRASH_WRITER="$<TARGET_FILE:storage_crash_writer>")
  add_dependencies(storage_kill_loop storage_crash_writer)
endif()
