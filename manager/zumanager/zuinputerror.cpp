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
  // Read at its size in one piece: a stream that grows by doubling and is
  // then copied out would hold the text up to three times over.
  std::string text(static_cast<std::size_t>(st.st_size), '\0');
  in.read(&text[0], static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(in.gcount()));
  if (in) {  // it grew since: the rest as well
    std::ostringstream rest;
    rest << in.rdbuf();
    text += rest.str();
  }
  return text;
}

}  // namespace ZU
