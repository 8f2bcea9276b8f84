# cmake -DIN=file -DOUT=file.cpp -P embed.cmake: the text of IN as the C++
# string ZU::service::kDefaultTreeJson.
file(READ ${IN} text HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${text}")
file(WRITE ${OUT} "// Generated from ${IN}; do not edit.\n#include <cstddef>\nnamespace ZU { namespace service {\nextern const char kDefaultTreeJson[];\nextern const std::size_t kDefaultTreeJsonSize;\nconst char kDefaultTreeJson[] = {${bytes} '\\0'};\nconst std::size_t kDefaultTreeJsonSize = sizeof(kDefaultTreeJson) - 1;\n}}\n")
