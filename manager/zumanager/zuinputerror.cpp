#include "zumanager/zuinputerror.h"

#include <fstream>
#include <sstream>

#include <sys/stat.h>

namespace ZU {

std::string quoteName(const std::string& name) { return "\"" + escapeControls(name, true) + "\""; }

std::string escapeControls(const std::string& name, bool quotes) {
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  for (char c : name) {
    unsigned char u = static_cast<unsigned char>(c);
    if (quotes && (c == '"' || c == '\\')) {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (u < 0x20 || u == 0x7f) {
      out += "\\x";
      out += kHex[u >> 4];
      out += kHex[u & 15];
    } else {
      out += c;
    }
  }
  return out;
}

std::string readInputFile(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
    throw ZUInputError(escapeControls(path, false) + ": cannot be read (not a regular file)");
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ZUInputError(escapeControls(path, false) + ": cannot be read");
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace ZU
