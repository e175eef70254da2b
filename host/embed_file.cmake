# cmake -DINPUT=file -DOUTPUT=file.cpp -DSYMBOL=name -P embed_file.cmake
# Writes a C++ source that holds INPUT's bytes, for the console page built
# into vtr-cmdserver (no build step beyond this copy).
file(READ "${INPUT}" bytes HEX)
string(LENGTH "${bytes}" hex_length)
math(EXPR size "${hex_length} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${bytes}")

file(WRITE "${OUTPUT}" "// Generated from ${INPUT}; do not edit.\n#include \"host/web_page.h\"\n\nnamespace cmdserver {\nnamespace {\nconstexpr char data[] = {\n    ${bytes}'\\0'};\n}  // namespace\n\nstd::string_view ${SYMBOL}() noexcept { return {data, ${size}}; }\n\n}  // namespace cmdserver\n")
