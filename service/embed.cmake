# cmake -DIN=file -DOUT=file.cpp -P embed.cmake: ZU::service::defaultTreeJson()
# returning the text of IN.
file(READ ${IN} text HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${text}")
file(WRITE ${OUT} "// Generated from ${IN}; do not edit.\n#include \"zuservice/zudefaulttree.h\"\nnamespace ZU {\nnamespace service {\nstd::string defaultTreeJson() {\n  static const char text[] = {${bytes}};\n  return std::string(text, sizeof text);\n}\n}  // namespace service\n}  // namespace ZU\n")
