# What an extension bundle declares: content scripts, style sheets, website
# access, the toolbar item.
add_library(appex_manifest ${CMAKE_CURRENT_LIST_DIR}/extension_manifest.cpp)
target_link_libraries(appex_manifest PUBLIC appex_message)
