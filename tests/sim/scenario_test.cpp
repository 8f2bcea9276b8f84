// Reading scenario files: the tree, the timeline, and the refusals that name
// the file, the entry and the fault.
#include "scenario.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

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

std::string refusalWithCast(const std::string& rest) {
  return refusal("{" + kCast + ", " + rest + "}");
}

}  // namespace

TEST(Scenario, GroupsAreWalkedInMemberOrderEachLeafOnce) {
  Scenario s = withCast("");
  EXPECT_EQ(s.leavesOf("Upper"), (std::vector<std::string>{"Head", "LeftArm", "RightArm"}));
  EXPECT_EQ(s.leavesOf("Standing"), (std::vector<std::string>{"Standing"}));
  EXPECT_EQ(s.roots(), (std::vector<std::string>{"Standing", "Upper"}));
}

TEST(Scenario, ActionsRunInTimeOrderKeepingFileOrderForEqualTimes) {
  Scenario s = withCast(R"("actions": [
    {"at": 300, "owner": "a", "do": "release", "resource": "Head"},
    {"at": 100, "owner": "a", "do": "waitFor", "resource": "Head", "timeout": 2, "noWait": ["Arms"]},
    {"at": 100, "owner": "a", "do": "waitFor", "resource": "Arms"},
    {"at": 200, "do": "setState", "resource": "Standing", "activated": true}])");
  ASSERT_EQ(s.actions.size(), 4u);
  EXPECT_EQ(s.actions[0].resource, "Head");
  EXPECT_EQ(s.actions[0].timeout, 2);
  EXPECT_EQ(s.actions[0].entry, "actions[1]");
  EXPECT_EQ(s.actions[1].resource, "Arms");
  EXPECT_EQ(s.actions[1].timeout, -1);
  EXPECT_EQ(s.actions[2].kind, zusim::ActionKind::SetState);
  EXPECT_EQ(s.actions[3].kind, zusim::ActionKind::Release);
  EXPECT_EQ(s.stopAtMs, 300 + 10000);
}

TEST(Scenario, RefusesFaultsNamingFileEntryAndWhat) {
  const std::pair<std::string, std::string> cases[] = {
      {R"("actions": [{"at": 0, "owner": "a", "do": "waitFor", "resource": "Head", "tiemout": 1}])",
       "s.json: actions[0]: unknown field \"tiemout\""},
      {R"("actions": [{"at": 0, "owner": "a", "do": "waitFor", "resource": "Head", "noWait": ["Nose"]}])",
       "s.json: actions[0]: unknown resource \"Nose\""},
      {R"("actions": [{"at": 0, "owner": "a", "do": "jump", "resource": "Head"}])",
       "s.json: actions[0]: unknown action \"jump\""},
      {R"("actions": [{"at": 0, "do": "setState", "resource": "Head", "activated": true}])",
       "s.json: actions[0]: \"setState\" needs a state resource; \"Head\" is not one"},
      {R"("actions": [{"at": 0, "owner": "a", "do": "release", "resource": "Head", "noWait": ["Head"]}])",
       "s.json: actions[0]: only \"waitFor\" takes \"noWait\""},
      {R"("actions": [{"at": 1.5, "owner": "a", "do": "release", "resource": "Head"}])",
       "s.json: actions[0]: \"at\" must be an integer"},
      {R"("expect": [{"resource": "Arms", "holder": "a"}])",
       "s.json: expect[0]: \"holder\" needs a plain resource"},
      {R"("expect": [{"owner": "a", "outcome": "won"}])", "s.json: expect[0]: \"outcome\" must be"},
      {R"("expect": [{"at": -1, "resource": "Head", "holder": "a"}])",
       "s.json: expect[0]: negative time \"at\": -1"},
      {R"("expect": [{"resource": "Head"}])", "s.json: expect[0]: say what is expected"},
      {R"("expect": [{"deadlock": true, "owners": ["a", "ghost"]}])",
       "s.json: expect[0]: unknown owner \"ghost\""},
      {R"("expect": [{"staleWait": true, "resource": "Arms"}])",
       "s.json: expect[0]: waits are on plain and state resources; \"Arms\" is a group"},
      {R"("expect": [{"deadlock": true, "owner": "a"}])",
       "s.json: expect[0]: a deadlock or a stale wait takes \"owners\", a list"},
      {R"("expect": [{"deadlock": true, "staleWait": false}])",
       "s.json: expect[0]: one of \"deadlock\" and \"staleWait\""},
      {R"("expect": [{"resource": "Head", "holder": "a", "owners": ["a"]}])",
       "s.json: expect[0]: only \"deadlock\" and \"staleWait\" take \"owners\""},
      {R"("stopAt": -10)", "s.json: scenario: negative time \"stopAt\": -10"},
      {R"("stopAt": 50, "actions": [{"at": 60, "owner": "a", "do": "release", "resource": "Head"}])",
       "s.json: actions[0]: at 60 ms, after \"stopAt\" (50 ms)"},
  };
  for (const auto& c : cases) {
    std::string message = refusalWithCast(c.first);
    EXPECT_EQ(message.compare(0, c.second.size(), c.second), 0)
        << c.first << "\n  gave: " << message;
  }
}

TEST(Scenario, RefusesBadCastAndTree) {
  EXPECT_EQ(refusal("[1, 2]"), "s.json: scenario: must be a JSON object");
  EXPECT_EQ(refusal(R"({"resources": [{"name": "Head"}, {"name": "Head"}]})"),
            "s.json: resources[1]: resource \"Head\" declared twice");
  EXPECT_EQ(refusal(R"({"resources": [{"name": "Head", "kind": "limb"}]})"),
            "s.json: resources[0]: unknown kind \"limb\" (plain, state or group)");
  EXPECT_EQ(refusal(R"({"resources": [{"name": "G", "kind": "group", "members": ["Nose"]}]})"),
            "s.json: resources[0]: unknown resource \"Nose\"");
  EXPECT_EQ(refusal(R"({"resources": [{"name": "G", "kind": "group", "members": ["G"]}]})"),
            "s.json: resource \"G\": group cycle G -> G");
  EXPECT_EQ(refusal(R"({"resources": [{"name": "H"}], "modules": [{"name": "M", "delay": -3}]})"),
            "s.json: modules[0]: negative time \"delay\": -3");
  EXPECT_EQ(refusal(R"({"resources": [{"name": "H"}], "modules": [{"name": "M"}],
                        "owners": [{"name": "emptyOwner", "module": "M"}]})"),
            "s.json: owners[0]: \"emptyOwner\" is the placeholder's name");
  EXPECT_EQ(refusal(R"({"resources": []})"), "s.json: scenario: declares no resource");
}

TEST(Scenario, FindsACycleThroughSeveralGroups) {
  EXPECT_EQ(refusal(R"({"resources": [
      {"name": "A", "kind": "group", "members": ["B"]},
      {"name": "B", "kind": "group", "members": ["C"]},
      {"name": "C", "kind": "group", "members": ["A"]}]})"),
            "s.json: resource \"A\": group cycle A -> B -> C -> A");
  // A member shared by two groups is no cycle.
  EXPECT_NO_THROW(withCast(""));
}
