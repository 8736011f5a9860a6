# The WebKit browser: the engine-free parts (Info.plist content rules,
# resource paths) anywhere, and the browser end to end on real WebKit under
# `xvfb-run -a` (a 24-bit screen for the toolbar windows and the popover).
# The end-to-end suite is labelled "webkit;e2e", not "concurrency": under
# ThreadSanitizer it runs with the tsan-webkit test preset's options, which
# keep WebKit's own uninstrumented code out of the reports.
appex_test(webkit_browser_content_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/webkit_browser_content_test.cpp
  LIBS appex_webkit_content
  LABELS "platform")

if(APPEX_WITH_WEBKIT)
  find_package(PkgConfig REQUIRED)
  find_program(XVFB_RUN xvfb-run)
  pkg_check_modules(APPEX_TEST_BROWSER_DEPS REQUIRED IMPORTED_TARGET cpp-httplib cairo)

  add_executable(webkit_browser_test
    ${CMAKE_CURRENT_LIST_DIR}/webkit_browser_pages_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/webkit_browser_ui_test.cpp)
  target_link_libraries(webkit_browser_test PRIVATE
    appex_webkit_browser appex_entry PkgConfig::APPEX_TEST_BROWSER_DEPS
    GTest::gtest GTest::gmock GTest::gtest_main)
  target_compile_definitions(webkit_browser_test PRIVATE
    APPEX_TEST_DATA_DIR="${CMAKE_CURRENT_LIST_DIR}/webkit_browser_data"
    APPEX_SDK_DIR="${CMAKE_SOURCE_DIR}/sdk")
  if(XVFB_RUN)
    add_test(NAME webkit_browser_test
      COMMAND ${XVFB_RUN} -a -s "-screen 0 1600x1200x24" $<TARGET_FILE:webkit_browser_test>)
    set_tests_properties(webkit_browser_test PROPERTIES LABELS "webkit;e2e" TIMEOUT 300)
  endif()
endif()
