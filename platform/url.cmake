# The URL text the browser is handed to open and navigate to: Boost.URL for
# the syntax, libidn2 for internationalised host names.
find_package(PkgConfig REQUIRED)
pkg_check_modules(IDN2 REQUIRED IMPORTED_TARGET libidn2)
add_library(appex_browser_url ${CMAKE_CURRENT_LIST_DIR}/browser_url.cpp)
target_link_libraries(appex_browser_url PRIVATE Boost::url PkgConfig::IDN2)
