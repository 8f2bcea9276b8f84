// What the simulator reports of a real run: it observes the library from
// outside, so these check that each event is told of the right owner and
// resource, and only when it happened.
#include "simulation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace zusim;

namespace {

struct Played {
  std::vector<Event> events;
  RunRecord record;

  std::vector<std::string> texts(EventKind kind) const {
    std::vector<std::string> out;
    for (const Event& e : events)
      if (e.kind == kind) out.push_back(e.text);
    return out;
  }
};

Played play(const std::string& json) {
  Scenario scenario = parseScenario(json, "test.json");
  EventLog log(nullptr);
  Played run;
  {
    Simulation simulation(scenario, log);
    run.record = simulation.run();
  }
  run.events = log.events();
  return run;
}

}  // namespace

// Two owners of one module wait at once, on different holders: each wait is
// told of the owner whose request takes in the holder's resource.
TEST(Simulation, WaitsAreToldOfTheRequesterWhoseResourceTheHolderHolds) {
  Played run = play(R"({
    "resources": [{"name": "Head"}, {"name": "Arm"}],
    "modules": [{"name": "Shared", "onResource": "ignore"}, {"name": "Busy", "onResource": "ignore"}],
    "owners": [{"name": "h1", "module": "Busy"}, {"name": "h2", "module": "Busy"},
               {"name": "x", "module": "Shared"}, {"name": "y", "module": "Shared"}],
    "actions": [
      {"at": 0, "owner": "h1", "do": "waitFor", "resource": "Head"},
      {"at": 0, "owner": "h2", "do": "waitFor", "resource": "Arm"},
      {"at": 100, "owner": "y", "do": "waitFor", "resource": "Arm", "timeout": 0},
      {"at": 100, "owner": "x", "do": "waitFor", "resource": "Head", "timeout": 0}]})");
  std::vector<std::string> waits = run.texts(EventKind::Waiting);
  std::sort(waits.begin(), waits.end());
  EXPECT_EQ(waits, (std::vector<std::string>{"x waits for Head, held by h1",
                                             "y waits for Arm, held by h2"}));
  ASSERT_EQ(run.record.waits.size(), 2u);
  for (const Span& w : run.record.waits) EXPECT_GE(w.toMs, w.fromMs + 150) << w.owner;
  EXPECT_EQ(run.texts(EventKind::TimedOut).size(), 2u);
}

// A group's walk skips a busy member on the no-wait list: the wait is on the
// next member that the holder holds.
TEST(Simulation, GroupWaitIsOnTheFirstMemberNotSkipped) {
  Played run = play(R"({
    "resources": [{"name": "Head"}, {"name": "Arm"}, {"name": "Body", "kind": "group", "members": ["Head", "Arm"]}],
    "modules": [{"name": "M", "onResource": "ignore"}],
    "owners": [{"name": "h", "module": "M"}, {"name": "x", "module": "M"}],
    "actions": [
      {"at": 0, "owner": "h", "do": "waitFor", "resource": "Body"},
      {"at": 100, "owner": "x", "do": "waitFor", "resource": "Body", "timeout": 0, "noWait": ["Head"]}]})");
  EXPECT_EQ(run.texts(EventKind::Waiting),
            (std::vector<std::string>{"x waits for Arm, held by h"}));
}

// A group wait that fails gives back what it took on the way, and only that.
TEST(Simulation, FailedGroupWaitReportsTheMembersItGaveBack) {
  Played run = play(R"({
    "resources": [{"name": "Head"}, {"name": "Arm"}, {"name": "Legs"},
                  {"name": "Body", "kind": "group", "members": ["Head", "Arm", "Legs"]}],
    "modules": [{"name": "M", "onResource": "ignore"}],
    "owners": [{"name": "arm", "module": "M"}, {"name": "body", "module": "M"}],
    "actions": [
      {"at": 0, "owner": "arm", "do": "waitFor", "resource": "Arm"},
      {"at": 100, "owner": "body", "do": "waitFor", "resource": "Body", "timeout": 0}],
    "expect": [{"resource": "Head", "holder": "emptyOwner"}, {"resource": "Arm", "holder": "arm"}]})");
  EXPECT_EQ(run.texts(EventKind::Granted),
            (std::vector<std::string>{"arm is granted Arm", "body takes Head, a member of Body"}));
  EXPECT_EQ(run.texts(EventKind::TimedOut),
            (std::vector<std::string>{
                "body's wait for Body fails: \"resource wait has timeouted on Arm\""}));
  EXPECT_EQ(run.texts(EventKind::GaveBack),
            (std::vector<std::string>{"body gives back Head: its wait for Body failed"}));
  EXPECT_TRUE(run.record.allHeld());
}

// Only a hand-down is reported as one: the descendant's later grant of the
// free resource is a plain grant, although the parent-owner record survives
// and the release then hands the resource back.
TEST(Simulation, HandDownIsToldOnlyWhenTheHolderYields) {
  Played run = play(R"({
    "resources": [{"name": "Head"}],
    "modules": [{"name": "M", "onResource": "ignore"}],
    "owners": [{"name": "a", "module": "M"}, {"name": "ab", "module": "M"}],
    "actions": [
      {"at": 0, "owner": "a", "do": "waitFor", "resource": "Head"},
      {"at": 50, "owner": "ab", "do": "waitFor", "resource": "Head"},
      {"at": 100, "owner": "ab", "do": "release", "resource": "Head"},
      {"at": 150, "owner": "a", "do": "release", "resource": "Head"},
      {"at": 200, "owner": "ab", "do": "waitFor", "resource": "Head"},
      {"at": 250, "owner": "ab", "do": "release", "resource": "Head"}],
    "expect": [{"resource": "Head", "holder": "a"}]})");
  EXPECT_EQ(run.texts(EventKind::HandedDown),
            (std::vector<std::string>{"Head is handed down from a to ab"}));
  EXPECT_EQ(run.texts(EventKind::HandedBack),
            (std::vector<std::string>{"Head is handed back from ab to a",
                                      "Head is handed back from ab to a"}));
  EXPECT_EQ(run.texts(EventKind::Released), (std::vector<std::string>{"a releases Head"}));
  EXPECT_TRUE(run.record.allHeld());
}

// A module that lets go releases what its owner asked for (the whole group),
// and the deactivation of a state resource is seen waiting on its holder.
TEST(Simulation, ModuleReleasesTheRequestThatHoldsTheWantedResource) {
  Played run = play(R"({
    "resources": [{"name": "L"}, {"name": "R"}, {"name": "Arms", "kind": "group", "members": ["L", "R"]},
                  {"name": "Standing", "kind": "state", "activated": true}],
    "modules": [{"name": "Dance", "onResource": "release", "delay": 0}, {"name": "Point", "onResource": "ignore"}],
    "owners": [{"name": "dance", "module": "Dance"}, {"name": "point", "module": "Point"}],
    "actions": [
      {"at": 0, "owner": "dance", "do": "waitFor", "resource": "Arms"},
      {"at": 0, "owner": "dance", "do": "waitFor", "resource": "Standing"},
      {"at": 100, "owner": "point", "do": "waitFor", "resource": "R", "timeout": 2},
      {"at": 600, "do": "releaseState", "resource": "Standing"}],
    "expect": [{"resource": "L", "holder": "emptyOwner"}, {"resource": "R", "holder": "point"},
               {"resource": "Standing", "holders": []}, {"module": "Dance", "notified": ["R", "Standing"]}]})");
  std::vector<std::string> released = run.texts(EventKind::Released);
  EXPECT_EQ(released,
            (std::vector<std::string>{"dance releases Arms (L, R) after \"__onResource__\"",
                                      "dance releases Standing after \"__onResource__\""}));
  EXPECT_EQ(run.texts(EventKind::Waiting).back(),
            "the deactivation of Standing waits for dance to let go");
  EXPECT_TRUE(run.record.allHeld());
}

// Three behaviours each take one arm of a ring and, once Standing is
// activated, wait for the next one: the cycle is logged once, although the
// watcher sees it at every look until the time limits end it, naming every
// edge from the owner whose name sorts first.
TEST(Simulation, DeadlockIsLoggedOnceNamingEveryEdge) {
  Played run = play(R"({
    "resources": [{"name": "A"}, {"name": "B"}, {"name": "C"}, {"name": "S", "kind": "state"},
                  {"name": "AB", "kind": "group", "members": ["A", "S", "B"]},
                  {"name": "BC", "kind": "group", "members": ["B", "S", "C"]},
                  {"name": "CA", "kind": "group", "members": ["C", "S", "A"]}],
    "modules": [{"name": "M", "onResource": "ignore"}],
    "owners": [{"name": "x", "module": "M"}, {"name": "y", "module": "M"}, {"name": "z", "module": "M"}],
    "actions": [
      {"at": 0, "owner": "y", "do": "waitFor", "resource": "BC", "timeout": 1},
      {"at": 0, "owner": "x", "do": "waitFor", "resource": "AB", "timeout": 1},
      {"at": 0, "owner": "z", "do": "waitFor", "resource": "CA", "timeout": 1},
      {"at": 100, "do": "setState", "resource": "S", "activated": true}],
    "expect": [{"at": 900, "deadlock": true, "owners": ["x", "y", "z"], "resource": "C"},
               {"staleWait": false}]})");
  std::vector<std::string> deadlocks = run.texts(EventKind::Deadlock);
  ASSERT_EQ(deadlocks.size(), 1u);
  const std::string edges = "deadlock: x -> y (B), y -> z (C), z -> x (A); formed at ";
  EXPECT_EQ(deadlocks[0].substr(0, edges.size()), edges);
  // Each waits for the arm, not for S, which its holder also holds: an
  // activated state resource is granted to all.
  std::vector<std::string> waits = run.texts(EventKind::Waiting);
  for (const char* w : {"x waits for B, held by y", "y waits for C, held by z",
                        "z waits for A, held by x"})
    EXPECT_NE(std::find(waits.begin(), waits.end(), w), waits.end()) << w;
  EXPECT_TRUE(run.record.allHeld());
}

// switchOwner takes the head from its holder without a word, so the speaker
// goes on waiting on a tracker that holds nothing it wants: a stale wait,
// logged once although every later check finds it again.
TEST(Simulation, StaleWaitIsLoggedOnce) {
  Played run = play(R"({
    "resources": [{"name": "Head"}],
    "modules": [{"name": "M", "onResource": "ignore"}],
    "owners": [{"name": "tracker", "module": "M"}, {"name": "speaker", "module": "M"},
               {"name": "intruder", "module": "M"}],
    "actions": [
      {"at": 0, "owner": "tracker", "do": "waitFor", "resource": "Head"},
      {"at": 100, "owner": "speaker", "do": "waitFor", "resource": "Head", "timeout": 1},
      {"at": 200, "owner": "intruder", "do": "switchOwner", "resource": "Head"}],
    "expect": [{"at": 150, "staleWait": false},
               {"staleWait": true, "owners": ["speaker", "tracker"], "resource": "Head"},
               {"deadlock": false}]})");
  std::vector<std::string> stale = run.texts(EventKind::StaleWait);
  ASSERT_EQ(stale.size(), 1u);
  EXPECT_EQ(stale[0].rfind("stale wait: speaker waits on tracker for Head, which it has not held for ",
                           0),
            0u);
  EXPECT_TRUE(run.record.allHeld());
}
