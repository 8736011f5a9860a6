# The simulated browser the tab, window and toolbar tests run against.
appex_test(sim_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/sim_browser_test.cpp
  LIBS appex_sim
  LABELS "platform;concurrency")
