#include "output/html.h"

namespace zusim {

std::string escapeHtml(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::vector<std::string> statusPageLines(const std::vector<std::string>& roots) {
  static const std::string kEnd = "<br />";
  std::vector<std::string> lines;
  for (const std::string& text : roots) {
    std::size_t from = 0;
    while (from < text.size()) {
      std::size_t end = text.find(kEnd, from);
      std::size_t next = end == std::string::npos ? text.size() : end + kEnd.size();
      lines.push_back(text.substr(from, (end == std::string::npos ? text.size() : end) - from));
      from = next;
    }
  }
  return lines;
}

}  // namespace zusim
