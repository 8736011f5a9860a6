# The browser objects the system is handed (application, windows, tabs,
# pages, toolbar item, extension): interfaces only, so any host can supply
# them.
add_library(appex_browser INTERFACE)
target_link_libraries(appex_browser INTERFACE appex_message)

# The in-memory browser that tests and benchmarks run the system against.
add_library(appex_sim
  ${CMAKE_CURRENT_LIST_DIR}/sim/sim_browser.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sim/sim_core.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sim/sim_extension.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sim/sim_page.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sim/sim_tab.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sim/sim_toolbar_item.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sim/sim_window.cpp
)
target_link_libraries(appex_sim PUBLIC appex_browser appex_core)
