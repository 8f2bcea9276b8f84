#include "zulive/zulivepage.h"

#include <algorithm>

namespace ZU {
namespace zulivepage {

const char kStyle[] =
    "body{font-family:sans-serif;margin:24px;color:#222}"
    "#status{font-family:monospace;font-size:14px;background:#f5f6f8;padding:10px}"
    ".line{white-space:pre}table{border-collapse:collapse;font-size:13px}"
    "td{padding:2px 10px}td.ms{text-align:right;color:#555}.alarm{color:#c0392b}";

const char* markupEntity(unsigned long c) {
  switch (c) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '"':
      return "&quot;";
    case '\'':
      return "&#39;";
    default:
      return nullptr;
  }
}

std::string escapeHtml(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    const char* entity = markupEntity(static_cast<unsigned char>(c));
    if (entity)
      out += entity;
    else
      out += c;
  }
  return out;
}

std::vector<std::string> statusPageLines(const std::vector<std::string>& roots) {
  static const std::string kEnd = "<br />";
  std::vector<std::string> lines;
  for (const std::string& text : roots) {
    std::size_t from = 0;
    while (from < text.size()) {
      std::size_t end = std::min(text.find(kEnd, from), text.size());
      lines.push_back(text.substr(from, end - from));
      from = end + kEnd.size();
    }
  }
  return lines;
}

void section(std::ostream& out, const char* id, const char* heading,
             const std::vector<std::string>& lines, const char* lineClass) {
  out << "<h2>" << heading << "</h2>\n<div id=\"" << id << "\">\n";
  if (lines.empty()) out << "<div>none</div>\n";
  for (const std::string& line : lines)
    out << "<div class=\"" << lineClass << "\">" << escapeHtml(line) << "</div>\n";
  out << "</div>\n";
}

}  // namespace zulivepage
}  // namespace ZU
