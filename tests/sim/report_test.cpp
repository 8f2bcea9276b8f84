#include "output/report.h"

#include <string>

#include <gtest/gtest.h>

using namespace zusim;

namespace {

std::size_t count(const std::string& text, const std::string& part) {
  std::size_t n = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

class Report : public ::testing::Test {
 protected:
  Report() {
    scenario = parseScenario(R"({"title": "<h1>T</h1>",
      "resources": [{"name": "<b>Eye</b>"}, {"name": "Head"}, {"name": "Standing", "kind": "state"},
                    {"name": "Face", "kind": "group", "members": ["<b>Eye</b>", "Head"]}],
      "modules": [{"name": "M"}],
      "owners": [{"name": "<script>alert(1)</script>", "module": "M"}, {"name": "b", "module": "M"}]})",
                             "r.json");
    const std::string evil = "<script>alert(1)</script>";
    record.endMs = 1000;
    record.holdings = {
        {"<b>Eye</b>", evil, 0, 400, ""}, {"Head", evil, 0, 300, ""}, {"Head", "b", 500, 900, ""}};
    record.waits = {{"Head", "b", 100, 500, evil}};
    record.activations = {{"Standing", "", 200, 800, ""}};
    record.finalStatus = {"---Face<br />------<b>Eye</b> -> M eStrong [] 0<br />------Head<br />"};
    record.results = {{"expect[0]", false, "<b>Eye</b> held by b at the end, found emptyOwner"}};
    events = {{100, EventKind::Notified, "", "Head", "M is told \"__onResource__\" for Head"},
              {600, EventKind::TimedOut, "b", "Head", "b's wait fails: <i>timeout</i>"},
              {700, EventKind::GaveBack, "b", "Face", "on a group: no lane, no mark"}};
  }

  Scenario scenario;
  RunRecord record;
  std::vector<Event> events;
};

}  // namespace

TEST_F(Report, NamesShownAsTextAndTimelineHasALanePerHoldableResource) {
  std::string html = renderReport(scenario, events, record);
  for (const char* markup : {"<script>alert", "<b>", "<i>", "<h1>T</h1>"})
    EXPECT_EQ(count(html, markup), 0u);
  // The final status page: a line per library line, no literal line-end markup.
  EXPECT_EQ(count(html, "------&lt;b&gt;Eye&lt;/b&gt; -&gt; M eStrong [] 0\n"), 1u);
  EXPECT_EQ(count(html, "br /"), 0u);
  EXPECT_EQ(count(html, "FAILED expect[0]"), 1u);
  std::string svg = renderTimeline(scenario, events, record);
  EXPECT_EQ(count(svg, "font-weight=\"bold\">"), 3u);  // Eye, Head, Standing; no lane for Face
  EXPECT_EQ(count(svg, " holds Head ("), 2u);
  EXPECT_EQ(count(svg, "b waits for Head, held by &lt;script&gt;"), 1u);
  EXPECT_EQ(count(svg, "Standing activated from 200 to 800 ms"), 1u);
  EXPECT_EQ(count(svg, "class=\"mark\""), 2u);  // the group's event has no lane
  // Owners keep their colours: the first owner's two bars, the second's bar and wait.
  EXPECT_EQ(count(svg, " c0\""), 2u);
  EXPECT_EQ(count(svg, " c1\""), 2u);
}

// Sub-lanes, the legend's search and the rest of a crowd are checked in a
// browser (browser_test.sh); the colours and patterns here.
TEST_F(Report, OwnersPastTheFirstTwelveColoursAlsoCarryAPattern) {
  std::string many = R"({"resources": [{"name": "S", "kind": "state"}], "modules": [{"name": "M"}],
                         "owners": [)";
  for (int i = 0; i < 40; ++i)
    many += (i ? ", " : "") + std::string("{\"name\": \"o") + std::to_string(i) +
            "\", \"module\": \"M\"}";
  scenario = parseScenario(many + "]}", "crowd.json");
  std::string html = renderReport(scenario, {}, record);
  EXPECT_EQ(count(html, "<i class=\"c12\"><i class=\"p1\">"), 1u);
  EXPECT_EQ(count(html, "<i class=\"c11\"></i>"), 1u);
}

TEST_F(Report, DeadlockIsALineAcrossTheLanesWithItsTextEscaped) {
  events.push_back({650, EventKind::Deadlock, "b", "Head", "deadlock: b -> <i>c</i> (Head)"});
  std::string svg = renderTimeline(scenario, events, record);
  EXPECT_EQ(count(svg, "<line class=\"alarm\""), 1u);
  EXPECT_EQ(count(svg, "650 ms: deadlock: b -&gt; &lt;i&gt;c&lt;/i&gt; (Head)\""), 1u);
  EXPECT_EQ(count(svg, "class=\"mark\""), 2u);  // no mark of its own on the lane
}
