# Toolbar icons: decoding image files (GdkPixbuf, poppler-glib), each file
# once while it is unchanged.
find_package(PkgConfig REQUIRED)
pkg_check_modules(PIXBUF REQUIRED IMPORTED_TARGET gdk-pixbuf-2.0 poppler-glib)
add_library(appex_platform_images ${CMAKE_CURRENT_LIST_DIR}/webkit/pixbuf_image_loader.cpp
  ${CMAKE_CURRENT_LIST_DIR}/cached_image_loader.cpp)
target_link_libraries(appex_platform_images PUBLIC appex_browser PRIVATE PkgConfig::PIXBUF)
