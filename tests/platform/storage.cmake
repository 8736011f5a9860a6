# The user defaults store, the bundle reader and its declarations, and the
# HTTP client. The HTTP tests serve from 127.0.0.1 with cpp-httplib; the
# bundle tests write binary Info.plist files with libplist.
find_package(SQLite3 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(APPEX_TEST_PLIST REQUIRED IMPORTED_TARGET libplist-2.0)
pkg_check_modules(APPEX_TEST_HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)

appex_test(defaults_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/defaults_sqlite_user_defaults_test.cpp
  LIBS appex_platform_storage SQLite::SQLite3
  LABELS "platform;concurrency")

appex_test(bundle_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/bundle_test.cpp
  LIBS appex_platform_storage PkgConfig::APPEX_TEST_PLIST
  LABELS "platform")

appex_test(extension_manifest_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/extension_manifest_test.cpp
  LIBS appex_manifest
  LABELS "platform")

appex_test(http_client_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/http_curl_client_test.cpp
  LIBS appex_platform_storage PkgConfig::APPEX_TEST_HTTPLIB
  LABELS "platform;concurrency")
