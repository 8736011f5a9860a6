# Writes a C++ source that defines appex::bridgeScript() as the exact bytes of
# a script file, so the binary carries the one script in the source tree.
# Usage: cmake -DINPUT=<file> -DOUTPUT=<file.cpp> -P embed_script.cmake
# The bytes go in as a hexadecimal array: no delimiter or escape can clash
# with whatever the script holds.
if(NOT INPUT OR NOT OUTPUT)
  message(FATAL_ERROR "embed_script.cmake: INPUT and OUTPUT are required")
endif()

file(READ "${INPUT}" hex HEX)
string(LENGTH "${hex}" hexLength)
math(EXPR size "${hexLength} / 2")
# 24 bytes (48 hexadecimal digits) to a line, each byte as 0xNN. CMake's
# regular expressions have no counted repetition, hence the 48 dots.
string(REGEX REPLACE "(................................................)" "\\1\n    " bytes "${hex}")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")

file(WRITE "${OUTPUT}"
"// Generated from ${INPUT} by bridge/embed_script.cmake. Do not edit.
#include \"bridge/bridge_script.h\"

namespace appex {
namespace {

const unsigned char kScript[${size} + 1] = {
    ${bytes}0x00};

}  // namespace

std::string_view bridgeScript() {
  return std::string_view(reinterpret_cast<const char*>(kScript), ${size});
}

}  // namespace appex
")
