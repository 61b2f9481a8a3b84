# cmake -DINPUT=file -DOUTPUT=file.cpp -P embed.cmake
# Writes the bytes of INPUT as the array nodara_cli::sample_mesh.
file(READ ${INPUT} hex HEX)
string(LENGTH "${hex}" hex_length)
math(EXPR size "${hex_length} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n" bytes "${bytes}")
file(WRITE ${OUTPUT} "// Generated from ${INPUT}; do not edit.\n#include <cstddef>\nnamespace nodara_cli {\nextern const unsigned char sample_mesh[] = {\n${bytes}};\nextern const std::size_t sample_mesh_size = ${size};\n}  // namespace nodara_cli\n")
