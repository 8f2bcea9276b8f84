#include "scenario/lint.h"

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using zusim::lint;
using zusim::parseScenario;
using zusim::Warning;

namespace {

// Modules that let go quickly, too late for a 1 s limit, or never.
const std::string kCast = R"(
  "resources": [
    {"name": "Head"}, {"name": "Arm"}, {"name": "LeftArm"}, {"name": "RightArm"},
    {"name": "Standing", "kind": "state"},
    {"name": "Arms", "kind": "group", "members": ["LeftArm", "RightArm"]},
    {"name": "Posture", "kind": "group", "members": ["Standing", "Head"]}
  ],
  "modules": [{"name": "Quick", "onResource": "release", "delay": 100},
              {"name": "Slow", "onResource": "release", "delay": 3000},
              {"name": "Deaf", "onResource": "ignore"}],
  "owners": [{"name": "a", "module": "Quick"}, {"name": "a/x", "module": "Deaf"},
             {"name": "b", "module": "Deaf"}, {"name": "c", "module": "Slow"},
             {"name": "d", "module": "Deaf"}])";

/// The warnings about a release flag left set, as "entry: text", for
/// actions in a short form: "a@0 Head 5" (a waits for Head, 5 s at most; no
/// limit when left out) or "on@0" and "off@100" (Standing set), by ", ".
std::vector<std::string> flagWarnings(const std::string& actions) {
  std::string json;
  std::istringstream all(actions);
  for (std::string part; std::getline(all, part, ',');) {
    std::istringstream in(part);
    std::string who, resource;
    long at = 0;
    int timeout = -1;
    std::getline(in >> std::ws, who, '@');
    in >> at >> resource;
    if (!(in >> timeout)) timeout = -1;
    const std::string action = who == "on" || who == "off"
                                   ? R"("do": "setState", "resource": "Standing", "activated": )" +
                                         std::string(who == "on" ? "true" : "false")
                                   : R"("do": "waitFor", "owner": ")" + who +
                                         R"(", "resource": ")" + resource + R"(", "timeout": )" +
                                         std::to_string(timeout);
    json += (json.empty() ? "{\"at\": " : ", {\"at\": ") + std::to_string(at) + ", " + action + "}";
  }
  std::vector<std::string> out;
  for (const Warning& w :
       lint(parseScenario("{" + kCast + ", \"actions\": [" + json + "]}", "s.json")))
    if (w.text.find("release flag") != std::string::npos) out.push_back(w.entry + ": " + w.text);
  return out;
}

}  // namespace

// An owner asks again after something set its release flag; the warning
// names the request and the first thing that set the flag before it, or
// there is none.
TEST(Lint, WarnsOfARequestAfterItsOwnersReleaseFlagIsSet) {
  struct Row {
    const char* what;
    const char* actions;
    std::string warning;  // the start of the one expected, or empty for none
  } rows[] = {
      {"the module let go when another owner asked", "a@0 Head, b@100 Head 5, a@500 Arm",
       "actions[2]: a requests Arm after its module Quick let go of Head when told "
       "\"__onResource__\" for b's request (actions[1])"},
      {"the module let go at a deactivation", "on@0, a@10 Standing, off@100, a@500 Arm",
       "actions[3]: a requests Arm after its module Quick let go of Standing when told "
       "\"__onResource__\" for the deactivation of Standing (actions[2])"},
      {"a module that ignores the request lets nothing go", "b@0 Head, d@100 Head 1, b@500 Arm",
       ""},
      {"asked again before anyone wanted what it holds", "a@0 Head, a@50 Arm, b@100 Head 1", ""},
      {"a descendant is handed it down, nobody is told", "a@0 Head, a/x@100 Head, a@500 Arm", ""},
      {"a group wait granted at once gives nothing back", "b@0 Arms 1, b@1500 Head", ""},
      {"a group wait behind a holder that lets go in time",
       "a@0 LeftArm, b@100 Arms 2, b@2500 Head", ""},
      {"a group wait behind a holder whose module ignores the request",
       "d@0 LeftArm, b@100 Arms 1, b@1500 Head",
       "actions[2]: b requests Head after its wait for the group Arms (actions[1]), which gives "
       "back what it took if it times out"},
      {"a group wait behind a holder that lets go after the limit",
       "c@0 LeftArm, b@100 Arms 1, b@1500 Head",
       "actions[2]: b requests Head after its wait for the group Arms (actions[1])"},
      {"a group wait for a state never activated", "b@0 Posture 1, b@1500 Arm",
       "actions[1]: b requests Arm after its wait for the group Posture (actions[0])"},
      {"a group wait for a state activated before", "on@0, b@10 Posture 1, b@1500 Arm", ""},
      {"a group wait for a state activated in time", "b@0 Posture 1, on@799, b@1500 Arm", ""},
      {"a group wait for a state activated too late", "b@0 Posture 1, on@800, b@1500 Arm",
       "actions[2]: b requests Arm after its wait for the group Posture (actions[0])"},
  };
  for (const Row& row : rows) {
    std::vector<std::string> found = flagWarnings(row.actions);
    if (row.warning.empty()) {
      EXPECT_EQ(found, std::vector<std::string>{}) << row.what;
    } else {
      ASSERT_EQ(found.size(), 1u) << row.what;
      EXPECT_EQ(found[0].substr(0, row.warning.size()), row.warning) << row.what;
    }
  }
}
