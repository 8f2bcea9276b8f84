#include "scenario/scenario.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

using zusim::kMaxNesting;
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

// Two robots sharing the fleet resource Lift.
const std::string kRobots = R"("robots": [
    {"name": "r1", "resources": [{"name": "Lift", "kind": "fleet"}], "modules": [{"name": "M1"}],
     "owners": [{"name": "a1", "module": "M1"}]},
    {"name": "r2", "resources": [{"name": "Lift", "kind": "fleet"}], "modules": [{"name": "M2"}],
     "owners": [{"name": "a2", "module": "M2"}]}])";

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

// Actions run in time order, keeping file order for equal times. The timeline
// is put in order in place, following each cycle of the permutation: several
// cycles, one of them long, and actions already in place.
TEST(Scenario, ActionsRunInTimeOrderKeepingFileOrderForEqualTimes) {
  const long times[] = {50, 30, 50, 10, 30, 0, 50, 20, 60};
  std::string actions;
  for (long t : times)
    actions += std::string(actions.empty() ? "" : ", ") + R"({"at": )" + std::to_string(t) +
               R"(, "owner": "a", "do": "release", "resource": "Head"})";
  Scenario s = withCast(R"("actions": [)" + actions + "]");
  std::vector<std::string> order;
  for (const auto& a : s.actions) order.push_back(a.entry + "@" + std::to_string(a.atMs));
  EXPECT_EQ(order, (std::vector<std::string>{"actions[5]@0", "actions[3]@10", "actions[7]@20",
                                             "actions[1]@30", "actions[4]@30", "actions[0]@50",
                                             "actions[2]@50", "actions[6]@50", "actions[8]@60"}));
  EXPECT_EQ(s.stopAtMs, 60 + 10000);  // without "stopAt": 10 s after the last action
}

/// `depth` groups, each holding the next, the last holding Head.
std::string chain(int depth) {
  std::string groups;
  for (int i = 0; i < depth; ++i)
    groups += R"(, {"name": "G)" + std::to_string(i) + R"(", "kind": "group", "members": [")" +
              (i + 1 < depth ? "G" + std::to_string(i + 1) : std::string("Head")) + "\"]}";
  return R"({"resources": [{"name": "Head"})" + groups + "]}";
}

// Every refusal names the file, the entry and what is wrong, on one line.
TEST(Scenario, RefusesFaultsNamingFileEntryAndWhat) {
  const std::string cast = "{" + kCast + ", ";
  const std::pair<std::string, std::string> cases[] = {
      {"{\"title\": \"broken\", \"resources\": [", "s.json: not JSON: "},
      {cast + R"("actions": [{"at": 0, "owner": "a", "do": "waitFor", "resource": "Hand"}]})",
       "s.json: actions[0]: unknown resource \"Hand\""},
      {cast + R"("actions": [{"at": 0, "owner": "ghost", "do": "waitFor", "resource": "Head"}]})",
       "s.json: actions[0]: unknown owner \"ghost\""},
      {R"({"resources": [{"name": "H"}], "owners": [{"name": "a", "module": "Missing"}]})",
       "s.json: owners[0]: unknown module \"Missing\""},
      {R"({"resources": [{"name": "Head"}, {"name": "Upper", "kind": "group", "members": ["Head", "Whole"]},
          {"name": "Whole", "kind": "group", "members": ["Upper"]}]})",
       "s.json: resource \"Upper\": group cycle Upper -> Whole -> Upper"},
      {cast + R"("expect": [{"at": 500, "deadlock": "yes"}]})",
       "s.json: expect[0]: \"deadlock\" must be true or false"},
      {cast +
           R"("actions": [{"at": 0, "owner": "a", "do": "waitFor", "resource": "Head", "tiemout": 1}]})",
       "s.json: actions[0]: unknown field \"tiemout\""},
      {cast + R"("actions": [{"at": 0, "do": "setState", "resource": "Head", "activated": true}]})",
       "s.json: actions[0]: \"setState\" needs a state resource; \"Head\" is not one"},
      {cast + R"("expect": [{"owner": "a", "grantedAtMs": [300, 200]}]})",
       "s.json: expect[0]: \"grantedAtMs\" must be [from, to], two times in ms from 0 to 3600000 "
       "with from <= to, not [300,200]"},
      {cast + R"("expect": [{"owner": "a", "waitedBehind": "ghost"}]})",
       "s.json: expect[0]: unknown owner \"ghost\""},
      {cast + R"("expect": [{"resource": "Head", "maxWaitMs": -1}]})",
       "s.json: expect[0]: \"maxWaitMs\" must be an integer from 0 to 3600000, not -1"},
      {cast + R"("expect": [{"module": "M", "notifiedTimes": 1, "to": 5}]})",
       "s.json: expect[0]: only \"deadlock\" and \"staleWait\" take \"from\" and \"to\""},
      {cast + R"("expect": [{"deadlock": false, "from": 500, "to": 100}]})",
       "s.json: expect[0]: \"from\" is after \"to\""},
      {cast + R"("expect": [{"resource": "Arms", "holder": "a"}]})",
       "s.json: expect[0]: \"holder\" needs a plain resource"},
      {cast + R"("expect": [{"staleWait": true, "resource": "Arms"}]})",
       "s.json: expect[0]: waits are on plain and state resources; \"Arms\" is a group"},
      // Numbers are checked where they are read, never wrapped.
      {cast + R"("actions": [{"at": -5, "owner": "a", "do": "release", "resource": "Head"}]})",
       "s.json: actions[0]: \"at\" must be an integer from 0 to 3600000, not -5"},
      {cast +
           R"("actions": [{"at": 4294967396, "owner": "a", "do": "release", "resource": "Head"}]})",
       "s.json: actions[0]: \"at\" must be an integer from 0 to 3600000, not 4294967396"},
      {cast +
           R"("actions": [{"at": 0, "owner": "a", "do": "waitFor", "resource": "Head", "timeout": 99999999999999999999}]})",
       "s.json: actions[0]: \"timeout\" must be an integer from -1 to 3600, not 1e+20"},
      {cast + R"("expect": [{"at": 1.5, "resource": "Head", "holder": "a"}]})",
       "s.json: expect[0]: \"at\" must be an integer from 0 to 3600000, not 1.5"},
      {R"({"resources": [{"name": "H"}], "modules": [{"name": "M", "delay": 18446744073709551615}]})",
       "s.json: modules[0]: \"delay\" must be an integer from 0 to 3600000, not "
       "18446744073709551615"},
      // stopAt is the end: nothing is scheduled after it.
      {cast +
           R"("stopAt": 50, "actions": [{"at": 60, "owner": "a", "do": "release", "resource": "Head"}]})",
       "s.json: actions[0]: at 60 ms, after \"stopAt\" (50 ms)"},
      {cast + R"("stopAt": 50, "expect": [{"at": 60, "resource": "Head", "holder": "a"}]})",
       "s.json: expect[0]: at 60 ms, after \"stopAt\" (50 ms)"},
      // What JSON allows but would silently lose or confuse.
      {cast +
           R"("actions": [{"at": 0, "at": 100, "owner": "a", "do": "release", "resource": "Head"}]})",
       "s.json: actions[0]: key \"at\" given twice"},
      {R"({"resources": [{"name": "H"}], "resources": []})",
       "s.json: scenario: key \"resources\" given twice"},
      {R"({"resources": [{"name": "H"}, {"name": "G", "kind": "group", "members": ["H", "H"]}]})",
       "s.json: resources[1]: group lists \"H\" twice"},
      {R"({"resources": [{"name": ""}]})", "s.json: resources[0]: empty resource name"},
      {R"({"resources": [{"name": "H"}], "modules": [{"name": ""}]})",
       "s.json: modules[0]: empty module name"},
      // A name is quoted with its control characters escaped: one line, no terminal escape.
      {cast +
           R"("actions": [{"at": 0, "owner": "a\nb\u0000\u001b[2J", "do": "release", "resource": "Head"}]})",
       "s.json: actions[0]: unknown owner \"a\\nb\\x00\\x1b[2J\""},
      {chain(kMaxNesting + 1), "s.json: resource \"G0\": groups nest deeper than 32 levels"},
      // Robots and the fleet resources they share (a fleet resource outside
      // "robots" is the tree reader's, tested with it).
      {"{" + kRobots + R"(, "expect": [{"resource": "Lift", "holder": "a1"}]})",
       "s.json: expect[0]: robots \"r1\" and \"r2\" both have \"Lift\": say which with \"robot\""},
      {"{" + kRobots + R"(, "actions": [{"at": 0, "do": "kill", "robot": "r9"}]})",
       "s.json: actions[0]: unknown robot \"r9\""},
      {"{" + kRobots +
           R"(, "actions": [{"at": 0, "do": "cutOff", "robot": "r1", "durationMs": 0}]})",
       "s.json: actions[0]: \"durationMs\" must be an integer from 1 to 3600000, not 0"},
      {R"({"robots": [{"name": "r1", "ttlSeconds": 0}]})",
       "s.json: robots[0]: \"ttlSeconds\" must be an integer from 1 to 3600, not 0"},
      {R"({"robots": [{"name": "r1", "modules": [{"name": "M1"}]},
                      {"name": "r2", "owners": [{"name": "a", "module": "M1"}]}]})",
       "s.json: robots[1].owners[0]: module \"M1\" belongs to another robot"},
  };
  for (const auto& c : cases) {
    std::string message = refusal(c.first);
    EXPECT_EQ(message.compare(0, c.second.size(), c.second), 0)
        << c.first << "\n  gave: " << message;
    EXPECT_EQ(message.find('\n'), std::string::npos) << message;
  }
  EXPECT_NO_THROW(parseScenario(chain(kMaxNesting), "s.json"));
  for (const char* unreadable : {"/dev/zero", "/", "no_such_scenario.json"}) {
    try {
      zusim::loadScenario(unreadable);
      ADD_FAILURE() << unreadable;
    } catch (const ScenarioError& e) {
      EXPECT_EQ(std::string(e.what()).find(": cannot be read"), std::string(unreadable).size());
    }
  }
}
