# Writes OUTPUT, a C++ source defining OmbrixTool::<SYMBOL> (the bytes of
# INPUT, NUL-terminated) and <SYMBOL>Size, as ReferenceText.h declares them.
#   cmake -DINPUT=docs/reference.md -DOUTPUT=ReferenceText.cpp -DSYMBOL=kReferenceText -P EmbedText.cmake
file(READ "${INPUT}" bytes HEX)
string(LENGTH "${bytes}" digits)
math(EXPR size "${digits} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${bytes}")
file(WRITE "${OUTPUT}.tmp"
  "// Generated from ${INPUT} by EmbedText.cmake; do not edit.\n"
  "#include \"ReferenceText.h\"\n\n"
  "namespace OmbrixTool {\n\n"
  "const char ${SYMBOL}[] = {${bytes}'\\0'};\n"
  "const std::size_t ${SYMBOL}Size = ${size};\n\n"
  "}  // namespace OmbrixTool\n")
file(RENAME "${OUTPUT}.tmp" "${OUTPUT}")
