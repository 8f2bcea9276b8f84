#include "output/junit.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

#include <zulive/zulivepage.h>

namespace zusim {

namespace {

const char kHex[] = "0123456789ABCDEF";

void appendEscape(std::string& out, const char* prefix, unsigned long value, int digits) {
  out += prefix;
  for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) out += kHex[(value >> shift) & 15];
}

/// The length of the UTF-8 sequence at `i` and its code point, or 0 when
/// the bytes there are no well-formed UTF-8 (a stray or missing continuation
/// byte, an overlong form, a surrogate, past U+10FFFF).
std::size_t decodeUtf8(const std::string& s, std::size_t i, unsigned long& cp) {
  unsigned char b = static_cast<unsigned char>(s[i]);
  std::size_t n;
  unsigned long min;
  if (b < 0x80) {
    cp = b;
    return 1;
  } else if ((b & 0xE0) == 0xC0) {
    n = 2, cp = b & 0x1F, min = 0x80;
  } else if ((b & 0xF0) == 0xE0) {
    n = 3, cp = b & 0x0F, min = 0x800;
  } else if ((b & 0xF8) == 0xF0) {
    n = 4, cp = b & 0x07, min = 0x10000;
  } else {
    return 0;
  }
  if (s.size() - i < n) return 0;
  for (std::size_t k = 1; k < n; ++k) {
    unsigned char c = static_cast<unsigned char>(s[i + k]);
    if ((c & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (c & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return n;
}

/// `text` as XML 1.0 can carry it, in an attribute or between tags: markup
/// characters as entities; tab, newline and carriage return as character
/// references (an attribute would turn them into spaces); the other control
/// characters and every byte that is not UTF-8 as the text \xHH, and U+FFFE
/// and U+FFFF as \uFFFE and \uFFFF, which XML cannot carry at all.
std::string escapeXml(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    unsigned long cp = 0;
    std::size_t n = decodeUtf8(text, i, cp);
    if (n == 0) {
      appendEscape(out, "\\x", static_cast<unsigned char>(text[i]), 2);
      ++i;
      continue;
    }
    if (const char* entity = ZU::zulivepage::markupEntity(cp)) {
      out += entity;
      i += n;
      continue;
    }
    switch (cp) {
      case '\t':
        out += "&#9;";
        break;
      case '\n':
        out += "&#10;";
        break;
      case '\r':
        out += "&#13;";
        break;
      default:
        if (cp < 0x20 || cp == 0x7F)
          appendEscape(out, "\\x", cp, 2);
        else if (cp == 0xFFFE || cp == 0xFFFF)
          appendEscape(out, "\\u", cp, 4);
        else
          out.append(text, i, n);
    }
    i += n;
  }
  return out;
}

// What a failed expectation found follows its text after this.
const char kFound[] = ", found ";

/// The test case's name: the entry and what it expects, without what was found.
std::string caseName(const ExpectResult& r) {
  std::string expects = r.text;
  std::size_t found = r.held ? std::string::npos : expects.rfind(kFound);
  if (found != std::string::npos) expects.erase(found);
  return r.entry + ": " + expects;
}

}  // namespace

std::string renderJUnit(const std::vector<SuiteResult>& suites) {
  std::size_t tests = 0, failures = 0, errors = 0;
  for (const SuiteResult& s : suites) {
    tests += s.refused.empty() ? s.results.size() : 1;
    errors += s.refused.empty() ? 0 : 1;
    failures += std::count_if(s.results.begin(), s.results.end(),
                              [](const ExpectResult& r) { return !r.held; });
  }
  std::ostringstream out;
  out << std::fixed << std::setprecision(3);
  out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites name=\"zuresource-sim\" tests=\""
      << tests << "\" failures=\"" << failures << "\" errors=\"" << errors << "\">\n";
  for (const SuiteResult& s : suites) {
    std::size_t failed = std::count_if(s.results.begin(), s.results.end(),
                                       [](const ExpectResult& r) { return !r.held; });
    std::string suite = escapeXml(s.file);
    out << "  <testsuite name=\"" << suite << "\" tests=\""
        << (s.refused.empty() ? s.results.size() : 1) << "\" failures=\"" << failed
        << "\" errors=\"" << (s.refused.empty() ? 0 : 1) << "\" skipped=\"0\" time=\"" << s.seconds
        << "\">\n";
    if (!s.title.empty())
      out << "    <properties><property name=\"title\" value=\"" << escapeXml(s.title)
          << "\"/></properties>\n";
    if (!s.refused.empty())
      out << "    <testcase classname=\"" << suite << "\" name=\"scenario\" time=\"0\"><error "
          << "message=\"" << escapeXml(s.refused) << "\">" << escapeXml(s.refused)
          << "</error></testcase>\n";
    for (const ExpectResult& r : s.results) {
      out << "    <testcase classname=\"" << suite << "\" name=\"" << escapeXml(caseName(r))
          << "\" time=\"0\"";
      if (r.held)
        out << "/>\n";
      else
        out << "><failure message=\"" << escapeXml(r.text) << "\">" << escapeXml(r.text)
            << "</failure></testcase>\n";
    }
    out << "  </testsuite>\n";
  }
  out << "</testsuites>\n";
  return out.str();
}

}  // namespace zusim
