# Storage, metadata and network: the user defaults store (SQLite), the
# extension bundle (Info.plist through libplist; libxml2 locates errors) and the HTTP client (libcurl).
find_package(SQLite3 REQUIRED)
find_package(CURL REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)
pkg_check_modules(XML2 REQUIRED IMPORTED_TARGET libxml-2.0)

add_library(appex_platform_storage
  ${CMAKE_CURRENT_LIST_DIR}/sqlite_user_defaults.cpp
  ${CMAKE_CURRENT_LIST_DIR}/bundle.cpp
  ${CMAKE_CURRENT_LIST_DIR}/resource_path.cpp
  ${CMAKE_CURRENT_LIST_DIR}/curl_http_client.cpp
)
target_link_libraries(appex_platform_storage
  PUBLIC appex_message
  PRIVATE SQLite::SQLite3 CURL::libcurl PkgConfig::PLIST PkgConfig::XML2)
# The HTTP client names the project's version in its User-Agent.
set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/curl_http_client.cpp
  PROPERTIES COMPILE_DEFINITIONS APPEX_VERSION="${PROJECT_VERSION}")
# The SDK shipped with appex: bundles may link to its files (resource_path.h).
set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/resource_path.cpp PROPERTIES
  COMPILE_DEFINITIONS APPEX_SDK_DIR="${CMAKE_SOURCE_DIR}/sdk")
