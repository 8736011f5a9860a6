# The web-view interface (headers only) and, with APPEX_WITH_WEBKIT, its
# WebKitGTK 4.1 implementation. GTK and WebKit stay private to appex_webkit:
# its users see only platform/web_view.h and platform/webkit/engine.h.
add_library(appex_web_view INTERFACE)
target_link_libraries(appex_web_view INTERFACE appex_message)

if(APPEX_WITH_WEBKIT)
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(APPEX_WEBKITGTK REQUIRED IMPORTED_TARGET webkit2gtk-4.1 gtk+-3.0)
  add_library(appex_webkit
    ${CMAKE_CURRENT_LIST_DIR}/webkit/engine.cpp
    ${CMAKE_CURRENT_LIST_DIR}/webkit/gtk_web_view.cpp
    ${CMAKE_CURRENT_LIST_DIR}/webkit/main_queue_source.cpp
  )
  target_link_libraries(appex_webkit
    PUBLIC appex_web_view appex_core
    PRIVATE PkgConfig::APPEX_WEBKITGTK)
endif()
