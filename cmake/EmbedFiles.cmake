# Writes a C++ file with the bytes of files: cmake -D OUTPUT=... -D "FILES=a;b" -P EmbedFiles.cmake
set(arrays "")
set(entries "")
set(count 0)
foreach(path ${FILES})
  get_filename_component(name ${path} NAME)
  file(READ ${path} hex HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  string(APPEND arrays "const unsigned char kFile${count}[] = {${bytes}0};\n")
  string(APPEND entries "    {\"${name}\", kFile${count}, sizeof kFile${count} - 1},\n")
  math(EXPR count "${count} + 1")
endforeach()
file(WRITE ${OUTPUT} "#include \"apps/serve/embedded_table.h\"

namespace serve {

namespace {

${arrays}
}  // namespace

const EmbeddedEntry kEmbeddedFiles[] = {
${entries}};
const std::size_t kNumEmbeddedFiles = ${count};

}  // namespace serve
")
