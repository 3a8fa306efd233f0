# Turns files into a C++ source: cmake -DOUTPUT=FILE -DFILES=A;B;... -P Embed.cmake
# Each becomes an entry {name without folder, bytes} of kest::tools::embeddedFiles().
set(arrays "")
set(entries "")
set(index 0)
foreach(file ${FILES})
  file(READ ${file} digits HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${digits}")
  string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n" bytes "${bytes}")
  get_filename_component(name ${file} NAME)
  string(APPEND arrays "constexpr unsigned char file${index}[] = {\n${bytes}};\n")
  string(APPEND entries "    {\"${name}\", file${index}},\n")
  math(EXPR index "${index} + 1")
endforeach()
file(WRITE ${OUTPUT} "// Made by cmake/Embed.cmake from examples/.
#include \"tools/kestctl/embedded.h\"
namespace kest::tools
{
namespace
{
${arrays}constexpr embeddedFile files[] = {
${entries}};
} // namespace
std::span<const embeddedFile> embeddedFiles() { return files; }
} // namespace kest::tools
")
