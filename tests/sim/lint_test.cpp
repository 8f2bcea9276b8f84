#include "scenario/lint.h"

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

/// The warnings about a release flag left set, as "entry: text".
std::vector<std::string> flagWarnings(const std::string& actions) {
  std::vector<std::string> out;
  for (const Warning& w : lint(parseScenario("{" + kCast + ", \"actions\": [" + actions + "]}",
                                             "s.json")))
    if (w.text.find("release flag") != std::string::npos) out.push_back(w.entry + ": " + w.text);
  return out;
}

std::string waitFor(long at, const std::string& owner, const std::string& resource,
                    int timeout = -1) {
  return "{\"at\": " + std::to_string(at) + ", \"owner\": \"" + owner +
         "\", \"do\": \"waitFor\", \"resource\": \"" + resource +
         "\", \"timeout\": " + std::to_string(timeout) + "}";
}

std::string setState(long at, bool on) {
  return "{\"at\": " + std::to_string(at) + ", \"do\": \"setState\", \"resource\": \"Standing\", " +
         "\"activated\": " + (on ? "true" : "false") + "}";
}

}  // namespace

// An owner asks again after something set its release flag; the warning
// names the request and the first thing that set the flag before it, or
// there is none.
TEST(Lint, WarnsOfARequestAfterItsOwnersReleaseFlagIsSet) {
  struct Row {
    const char* what;
    std::string actions;
    std::string warning;  // the start of the one expected, or empty for none
  } rows[] = {
      {"the module let go when another owner asked",
       waitFor(0, "a", "Head") + "," + waitFor(100, "b", "Head", 5) + "," + waitFor(500, "a", "Arm"),
       "actions[2]: a requests Arm after its module Quick let go of Head when told "
       "\"__onResource__\" for b's request (actions[1])"},
      {"the module let go at a deactivation",
       setState(0, true) + "," + waitFor(10, "a", "Standing") + "," + setState(100, false) + "," +
           waitFor(500, "a", "Arm"),
       "actions[3]: a requests Arm after its module Quick let go of Standing when told "
       "\"__onResource__\" for the deactivation of Standing (actions[2])"},
      {"a module that ignores the request lets nothing go",
       waitFor(0, "b", "Head") + "," + waitFor(100, "d", "Head", 1) + "," + waitFor(500, "b", "Arm"),
       ""},
      {"asked again before anyone wanted what it holds",
       waitFor(0, "a", "Head") + "," + waitFor(50, "a", "Arm") + "," + waitFor(100, "b", "Head", 1),
       ""},
      {"a descendant is handed it down, nobody is told",
       waitFor(0, "a", "Head") + "," + waitFor(100, "a/x", "Head") + "," + waitFor(500, "a", "Arm"),
       ""},
      {"a group wait granted at once gives nothing back",
       waitFor(0, "b", "Arms", 1) + "," + waitFor(1500, "b", "Head"), ""},
      {"a group wait behind a holder that lets go in time",
       waitFor(0, "a", "LeftArm") + "," + waitFor(100, "b", "Arms", 2) + "," +
           waitFor(2500, "b", "Head"),
       ""},
      {"a group wait behind a holder whose module ignores the request",
       waitFor(0, "d", "LeftArm") + "," + waitFor(100, "b", "Arms", 1) + "," +
           waitFor(1500, "b", "Head"),
       "actions[2]: b requests Head after its wait for the group Arms (actions[1]), which gives "
       "back what it took if it times out"},
      {"a group wait behind a holder that lets go after the limit",
       waitFor(0, "c", "LeftArm") + "," + waitFor(100, "b", "Arms", 1) + "," +
           waitFor(1500, "b", "Head"),
       "actions[2]: b requests Head after its wait for the group Arms (actions[1])"},
      {"a group wait for a state never activated",
       waitFor(0, "b", "Posture", 1) + "," + waitFor(1500, "b", "Arm"),
       "actions[1]: b requests Arm after its wait for the group Posture (actions[0])"},
      {"a group wait for a state activated before",
       setState(0, true) + "," + waitFor(10, "b", "Posture", 1) + "," + waitFor(1500, "b", "Arm"),
       ""},
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
