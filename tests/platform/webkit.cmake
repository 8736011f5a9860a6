# Tests on real WebKit: the WebKitGTK web view and engine, and the bridge end
# to end with the injected script. They need a display, so each runs under
# `xvfb-run -a`. Label "webkit", not "concurrency": under ThreadSanitizer
# they run with the tsan-webkit test preset's options, which keep WebKit's
# own uninstrumented code out of the reports.
if(APPEX_WITH_WEBKIT)
  find_program(XVFB_RUN xvfb-run)
  if(NOT XVFB_RUN)
    message(WARNING "xvfb-run not found: the WebKit tests are built but not registered")
  endif()

  function(appex_webkit_test name)
    add_executable(${name} ${ARGN})
    target_link_libraries(${name} PRIVATE appex_webkit appex_bridge
                          GTest::gtest GTest::gmock GTest::gtest_main)
    if(XVFB_RUN)
      add_test(NAME ${name} COMMAND ${XVFB_RUN} -a $<TARGET_FILE:${name}>)
      set_tests_properties(${name} PROPERTIES LABELS "webkit" TIMEOUT 300)
    endif()
  endfunction()

  appex_webkit_test(webkit_web_view_test ${CMAKE_CURRENT_LIST_DIR}/webkit_web_view_test.cpp)
  appex_webkit_test(webkit_bridge_test ${CMAKE_CURRENT_LIST_DIR}/webkit_bridge_test.cpp)
endif()
