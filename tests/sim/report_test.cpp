#include "output/report.h"

#include <string>

#include <gtest/gtest.h>

using namespace zusim;

// What the report draws (lanes, colours, activations, labels, the legend, a
// deadlock's line) is checked in Chromium, as a reader sees it:
// browser_test.sh with report_check.html. Here: the text a reader gets.

namespace {

/// The text of `html` as a browser shows it: tags left out (a script's and
/// a style's content too), the entities the report writes decoded.
std::string shownText(std::string html) {
  for (const std::string hidden : {"script", "style"})
    for (std::size_t at; (at = html.find("<" + hidden)) != std::string::npos;)
      html.erase(at, html.find("</" + hidden, at) - at);
  std::string text;
  for (std::size_t at = 0; at < html.size(); ++at)
    if (html[at] == '<')
      at = html.find('>', at);
    else
      text += html[at];
  // &amp; last, so that "&amp;lt;" stays "&lt;".
  const std::pair<std::string, char> entities[] = {
      {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&#39;", '\''}, {"&amp;", '&'}};
  for (const auto& [entity, c] : entities)
    for (std::size_t at = 0; (at = text.find(entity, at)) != std::string::npos; ++at)
      text.replace(at, entity.size(), 1, c);
  return text;
}

}  // namespace

TEST(Report, NamesLogAndStatusPageAreShownAsTheyAreNeverAsMarkup) {
  Scenario scenario = parseScenario(R"({"title": "<h1>T</h1>",
    "resources": [{"name": "<b>Eye</b>"}, {"name": "Head"},
                  {"name": "Face", "kind": "group", "members": ["<b>Eye</b>", "Head"]}],
    "modules": [{"name": "M"}],
    "owners": [{"name": "<script>alert(1)</script>", "module": "M"}, {"name": "b", "module": "M"}]})",
                                    "r.json");
  const std::string evil = "<script>alert(1)</script>";
  RunRecord record;
  record.endMs = 1000;
  record.holdings = {{"<b>Eye</b>", evil, 0, 400, ""}, {"Head", "b", 500, 900, ""}};
  record.waits = {{"Head", "b", 100, 500, evil}};
  record.finalStatus = {"---Face<br />------<b>Eye</b> -> M eStrong [] 0<br />------Head<br />"};
  record.results = {{"expect[0]", false, "<b>Eye</b> held by b at the end, found emptyOwner"}};
  std::vector<Event> events = {{600, EventKind::TimedOut, "b", "Head", "b's wait fails: <i>x</i>"}};
  std::string html = renderReport(scenario, events, record);
  for (const char* markup : {"<script>alert", "<b>Eye", "<i>x", "<h1>T"})
    EXPECT_EQ(html.find(markup), std::string::npos) << markup;
  std::string text = shownText(html);
  // The title, a lane, the legend, the log and the expectations, as written.
  for (const char* shown : {"<h1>T</h1>", "<b>Eye</b>", "<script>alert(1)</script>",
                            "600 ms  b's wait fails: <i>x</i>",
                            "FAILED expect[0]: <b>Eye</b> held by b at the end, found emptyOwner"})
    EXPECT_NE(text.find(shown), std::string::npos) << shown;
  // The status page: a line per library line, no line-end markup.
  EXPECT_NE(text.find("\n------<b>Eye</b> -> M eStrong [] 0\n------Head\n"), std::string::npos);
  EXPECT_EQ(text.find("<br />"), std::string::npos);
}
