#include "output/junit.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

#include "output/html.h"

namespace zusim {

namespace {

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
    std::string suite = escapeHtml(s.file);
    out << "  <testsuite name=\"" << suite << "\" tests=\""
        << (s.refused.empty() ? s.results.size() : 1) << "\" failures=\"" << failed
        << "\" errors=\"" << (s.refused.empty() ? 0 : 1) << "\" skipped=\"0\" time=\"" << s.seconds
        << "\">\n";
    if (!s.title.empty())
      out << "    <properties><property name=\"title\" value=\"" << escapeHtml(s.title)
          << "\"/></properties>\n";
    if (!s.refused.empty())
      out << "    <testcase classname=\"" << suite << "\" name=\"scenario\" time=\"0\"><error "
          << "message=\"" << escapeHtml(s.refused) << "\">" << escapeHtml(s.refused)
          << "</error></testcase>\n";
    for (const ExpectResult& r : s.results) {
      out << "    <testcase classname=\"" << suite << "\" name=\"" << escapeHtml(caseName(r))
          << "\" time=\"0\"";
      if (r.held)
        out << "/>\n";
      else
        out << "><failure message=\"" << escapeHtml(r.text) << "\">" << escapeHtml(r.text)
            << "</failure></testcase>\n";
    }
    out << "  </testsuite>\n";
  }
  out << "</testsuites>\n";
  return out.str();
}

}  // namespace zusim
