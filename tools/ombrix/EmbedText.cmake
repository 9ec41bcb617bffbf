# Writes OUTPUT, a C++ source defining OmbrixTool::kReferenceText (the bytes of
# INPUT, NUL-terminated) and kReferenceTextSize.
#   cmake -DINPUT=docs/reference.md -DOUTPUT=ReferenceText.cpp -P EmbedText.cmake
file(READ "${INPUT}" bytes HEX)
string(LENGTH "${bytes}" digits)
math(EXPR size "${digits} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${bytes}")
file(WRITE "${OUTPUT}.tmp"
  "// Generated from ${INPUT} by EmbedText.cmake; do not edit.\n"
  "#include \"ReferenceText.h\"\n\n"
  "namespace OmbrixTool {\n\n"
  "const char kReferenceText[] = {${bytes}'\\0'};\n"
  "const std::size_t kReferenceTextSize = ${size};\n\n"
  "}  // namespace OmbrixTool\n")
file(RENAME "${OUTPUT}.tmp" "${OUTPUT}")
