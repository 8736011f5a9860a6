# Reading the URL text web code hands the browser.
appex_test(browser_url_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/browser_url_test.cpp
  LIBS appex_browser_url
  LABELS "platform")
