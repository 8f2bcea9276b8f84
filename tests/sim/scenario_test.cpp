#include "scenario.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

using zusim::parseScenario;
using zusim::Scenario;
using zusim::ScenarioError;

namespace {

// Resources, modules and owners that the timelines below refer to.
const std::string kCast = R"(
  "resources": [
    {"name": "Head"}, {"name": "LeftArm"}, {"name": "RightArm"},
    {"name": "Standing", "kind": "state"},
    {"name": "Arms", "kind": "group", "members": ["LeftArm", "RightArm"]},
    {"name": "Upper", "kind": "group", "members": ["Head", "Arms", "LeftArm"]}
  ],
  "modules": [{"name": "M", "onResource": "release", "delay": 10}, {"name": "Quiet", "onResource": "ignore"}],
  "owners": [{"name": "a", "module": "M"}, {"name": "b", "module": "Quiet"}])";

Scenario withCast(const std::string& rest) {
  return parseScenario("{" + kCast + (rest.empty() ? "" : ", " + rest) + "}", "s.json");
}

std::string refusal(const std::string& text) {
  try {
    parseScenario(text, "s.json");
  } catch (const ScenarioError& e) {
    return e.what();
  }
  return "accepted";
}

}  // namespace

TEST(Scenario, GroupsAreWalkedInMemberOrderEachLeafOnce) {
  Scenario s = withCast("");
  EXPECT_EQ(s.leavesOf("Upper"), (std::vector<std::string>{"Head", "LeftArm", "RightArm"}));
  EXPECT_EQ(s.roots(), (std::vector<std::string>{"Standing", "Upper"}));
}

TEST(Scenario, ActionsRunInTimeOrderKeepingFileOrderForEqualTimes) {
  Scenario s = withCast(R"("actions": [
    {"at": 300, "owner": "a", "do": "release", "resource": "Head"},
    {"at": 100, "owner": "a", "do": "waitFor", "resource": "Head", "timeout": 2, "noWait": ["Arms"]},
    {"at": 100, "owner": "a", "do": "waitFor", "resource": "Arms"}])");
  ASSERT_EQ(s.actions.size(), 3u);
  EXPECT_EQ(s.actions[0].entry, "actions[1]");
  EXPECT_EQ(s.actions[1].entry, "actions[2]");
  EXPECT_EQ(s.actions[2].entry, "actions[0]");
  EXPECT_EQ(s.stopAtMs, 300 + 10000);
}

// The faults that the command-line refusals do not already show.
TEST(Scenario, RefusesFaultsNamingFileEntryAndWhat) {
  const std::pair<std::string, std::string> cases[] = {
      {R"("actions": [{"at": 0, "owner": "a", "do": "waitFor", "resource": "Head", "tiemout": 1}])",
       "s.json: actions[0]: unknown field \"tiemout\""},
      {R"("actions": [{"at": 0, "do": "setState", "resource": "Head", "activated": true}])",
       "s.json: actions[0]: \"setState\" needs a state resource; \"Head\" is not one"},
      {R"("expect": [{"resource": "Arms", "holder": "a"}])",
       "s.json: expect[0]: \"holder\" needs a plain resource"},
      {R"("expect": [{"staleWait": true, "resource": "Arms"}])",
       "s.json: expect[0]: waits are on plain and state resources; \"Arms\" is a group"},
      {R"("stopAt": 50, "actions": [{"at": 60, "owner": "a", "do": "release", "resource": "Head"}])",
       "s.json: actions[0]: at 60 ms, after \"stopAt\" (50 ms)"},
  };
  for (const auto& c : cases) {
    std::string message = refusal("{" + kCast + ", " + c.first + "}");
    EXPECT_EQ(message.compare(0, c.second.size(), c.second), 0)
        << c.first << "\n  gave: " << message;
  }
}
