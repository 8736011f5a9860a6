# The browser on WebKitGTK (platform/webkit/webkit_*.h): windows, tabs and
# pages as web views, content scripts in an isolated world, the toolbar item,
# the popover, the base URI scheme and snapshots.
#
# appex_webkit_content: the parts that need no engine (Info.plist content
# rules), testable without a display.
# appex_webkit_web_extension: the module WebKit loads into the tab web
# processes; it is built alone in its folder, because WebKit loads every
# module it finds there, and without sanitizers, because the web processes
# are not instrumented.
# appex_webkit_browser: the browser itself.
add_library(appex_webkit_content
  ${CMAKE_CURRENT_LIST_DIR}/webkit/content_rules.cpp
)
target_link_libraries(appex_webkit_content PUBLIC appex_message appex_manifest appex_platform_storage)

if(APPEX_WITH_WEBKIT)
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(APPEX_WEBKIT_WEB_EXTENSION REQUIRED IMPORTED_TARGET webkit2gtk-web-extension-4.1)
  # The toolbar button's PDF icons.
  pkg_check_modules(APPEX_WEBKIT_POPPLER REQUIRED IMPORTED_TARGET poppler-glib)

  set(APPEX_WEB_EXTENSIONS_DIR ${CMAKE_BINARY_DIR}/platform/webkit/web-extensions)
  add_library(appex_webkit_web_extension MODULE
    ${CMAKE_CURRENT_LIST_DIR}/webkit/web_extension/content_world.cpp)
  set_target_properties(appex_webkit_web_extension PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${APPEX_WEB_EXTENSIONS_DIR}
    CXX_VISIBILITY_PRESET hidden)
  target_compile_options(appex_webkit_web_extension PRIVATE -fno-sanitize=all)
  target_link_options(appex_webkit_web_extension PRIVATE -fno-sanitize=all)
  target_link_libraries(appex_webkit_web_extension PRIVATE PkgConfig::APPEX_WEBKIT_WEB_EXTENSION)

  add_library(appex_webkit_browser
    ${CMAKE_CURRENT_LIST_DIR}/webkit/main_thread.cpp
    ${CMAKE_CURRENT_LIST_DIR}/webkit/opened_tabs.cpp
    ${CMAKE_CURRENT_LIST_DIR}/webkit/resource_scheme.cpp
    ${CMAKE_CURRENT_LIST_DIR}/webkit/script_evaluation.cpp
    ${CMAKE_CURRENT_LIST_DIR}/webkit/snapshot.cpp
    ${CMAKE_CURRENT_LIST_DIR}/webkit/toolbar_face.cpp
    ${CMAKE_CURRENT_LIST_DIR}/webkit/webkit_browser.cpp
    ${CMAKE_CURRENT_LIST_DIR}/webkit/content_reload.cpp
    ${CMAKE_CURRENT_LIST_DIR}/webkit/gio_file_watcher.cpp
    ${CMAKE_CURRENT_LIST_DIR}/webkit/webkit_tab.cpp
    ${CMAKE_CURRENT_LIST_DIR}/webkit/webkit_toolbar_item.cpp
    ${CMAKE_CURRENT_LIST_DIR}/webkit/webkit_window.cpp
  )
  target_compile_definitions(appex_webkit_browser PRIVATE
    APPEX_WEB_EXTENSIONS_DIR="${APPEX_WEB_EXTENSIONS_DIR}")
  target_link_libraries(appex_webkit_browser
    PUBLIC appex_webkit appex_webkit_content appex_browser appex_core
    PRIVATE PkgConfig::APPEX_WEBKITGTK PkgConfig::APPEX_WEBKIT_POPPLER)
  add_dependencies(appex_webkit_browser appex_webkit_web_extension)
endif()
