// Each event of a real run is told of the right owner and resource, and only when it happened.
#include "simulation.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

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

// Two owners of one module wait at once, each on the holder of its own request,
// though x's group also holds the resource y waits for.
TEST(Simulation, WaitsAreToldOfTheRequesterNotOfTheModule) {
  Played run = play(R"({
    "resources": [{"name": "Head"}, {"name": "Arm"},
                  {"name": "Both", "kind": "group", "members": ["Head", "Arm"]}],
    "modules": [{"name": "Shared", "onResource": "ignore"}, {"name": "Busy", "onResource": "ignore"}],
    "owners": [{"name": "h1", "module": "Busy"}, {"name": "h2", "module": "Busy"},
               {"name": "x", "module": "Shared"}, {"name": "y", "module": "Shared"}],
    "actions": [
      {"at": 0, "owner": "h1", "do": "waitFor", "resource": "Head"},
      {"at": 0, "owner": "h2", "do": "waitFor", "resource": "Arm"},
      {"at": 100, "owner": "x", "do": "waitFor", "resource": "Both", "timeout": 0},
      {"at": 100, "owner": "y", "do": "waitFor", "resource": "Arm", "timeout": 0}]})");
  std::vector<std::string> waits = run.texts(EventKind::Waiting);
  std::sort(waits.begin(), waits.end());
  EXPECT_EQ(waits, (std::vector<std::string>{"x waits for Head, held by h1",
                                             "y waits for Arm, held by h2"}));
  EXPECT_EQ(run.texts(EventKind::TimedOut).size(), 2u);
  // The chart is drawn from the same events as the log, at the times it prints.
  for (const Event& e : run.events) {
    if (e.kind != EventKind::Waiting) continue;
    EXPECT_TRUE(std::any_of(run.record.waits.begin(), run.record.waits.end(), [&](const Span& w) {
      return w.owner == e.owner && w.resource == e.resource && w.fromMs == e.ms;
    })) << e.text;
  }
}

// A descendant's later grant of the free resource is no hand-down, though its release hands back.
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

// A three-owner ring, seen at every look until the time limits end it, is logged once.
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
  // Each waits for the arm, not for S: an activated state resource is granted to all.
  std::vector<std::string> waits = run.texts(EventKind::Waiting);
  for (const char* w :
       {"x waits for B, held by y", "y waits for C, held by z", "z waits for A, held by x"})
    EXPECT_NE(std::find(waits.begin(), waits.end(), w), waits.end()) << w;
  EXPECT_TRUE(run.record.allHeld());
}

// b's wait restarts when a's release flag is set by a stop on another resource:
// the library reports the cycle broken and formed again; it is one deadlock.
TEST(Simulation, DeadlockIsReportedOnceWhileItsEdgesStand) {
  Played run = play(R"({
    "resources": [{"name": "L"}, {"name": "R"}, {"name": "X"}],
    "modules": [{"name": "M", "onResource": "ignore"}],
    "owners": [{"name": "a", "module": "M"}, {"name": "b", "module": "M"}],
    "stopAt": 1500,
    "actions": [
      {"at": 0, "owner": "a", "do": "waitFor", "resource": "L"},
      {"at": 0, "owner": "a", "do": "waitFor", "resource": "X"},
      {"at": 0, "owner": "b", "do": "waitFor", "resource": "R"},
      {"at": 100, "owner": "b", "do": "waitFor", "resource": "L"},
      {"at": 150, "owner": "a", "do": "waitFor", "resource": "R"},
      {"at": 400, "do": "stop", "owner": "a", "resource": "X"}]})");
  std::vector<std::string> deadlocks = run.texts(EventKind::Deadlock);
  ASSERT_EQ(deadlocks.size(), 1u);
  EXPECT_EQ(deadlocks[0].rfind("deadlock: a -> b (R), b -> a (L); formed at 1", 0), 0u)
      << deadlocks[0];
  EXPECT_EQ(run.texts(EventKind::Waiting).size(), 2u);
}

// switchOwner takes Head silently: the speaker's wait on the tracker goes stale, logged once.
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
  EXPECT_EQ(stale[0].rfind(
                "stale wait: speaker waits on tracker for Head, which it has not held for ", 0),
            0u);
  EXPECT_TRUE(run.record.allHeld());
}

namespace {

bool has(const std::vector<std::string>& texts, const std::string& text) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

}  // namespace

// A deadlock with requests queued behind it, a wait that clears the stopped owner's
// flag, and a module's long delay: everything ends within a poll or two of stopAt.
TEST(Simulation, RunEndsShortlyAfterStopAt) {
  Played run = play(R"({
    "resources": [{"name": "L"}, {"name": "R"}, {"name": "Z"}],
    "modules": [{"name": "M", "onResource": "ignore"},
                {"name": "Slow", "onResource": "release", "delay": 100000}],
    "owners": [{"name": "a", "module": "M"}, {"name": "b", "module": "M"},
               {"name": "c", "module": "Slow"}, {"name": "d", "module": "M"}],
    "stopAt": 1000,
    "actions": [
      {"at": 0, "owner": "a", "do": "waitFor", "resource": "L"},
      {"at": 0, "owner": "b", "do": "waitFor", "resource": "R"},
      {"at": 0, "owner": "c", "do": "waitFor", "resource": "Z"},
      {"at": 100, "owner": "a", "do": "waitFor", "resource": "R"},
      {"at": 100, "owner": "b", "do": "waitFor", "resource": "L"},
      {"at": 200, "owner": "a", "do": "waitFor", "resource": "R"},
      {"at": 200, "owner": "b", "do": "waitFor", "resource": "L"},
      {"at": 400, "owner": "d", "do": "waitFor", "resource": "Z"}],
    "expect": [{"owner": "a", "outcome": "stopped"}, {"owner": "d", "outcome": "stopped"}]})");
  EXPECT_LT(run.record.endMs, 1000 + 3 * 200);
  std::vector<std::string> manager = run.texts(EventKind::Manager);
  for (const char* line :
       {"actions[5] of a (at 200 ms) is dropped: the scenario stopped at 1000 ms",
        "Slow's release of Z is dropped: the scenario stopped at 1000 ms",
        "the scenario stops: the manager stops d, still waiting for Z"})
    EXPECT_TRUE(has(manager, line)) << line;
  EXPECT_TRUE(run.record.allHeld());
}

// Why a stop nobody asked for happened, and why a deactivation left holders behind.
TEST(Simulation, ExplainsAStopOfItsOwnAndADeactivationThatStoppedEarly) {
  Played run = play(R"({
    "resources": [{"name": "X"}, {"name": "Y"}, {"name": "S", "kind": "state", "activated": true}],
    "modules": [{"name": "M", "onResource": "ignore"},
                {"name": "Quick", "onResource": "release", "delay": 0}],
    "owners": [{"name": "a", "module": "M"}, {"name": "b", "module": "M"},
               {"name": "q", "module": "Quick"}, {"name": "r", "module": "M"}],
    "actions": [
      {"at": 0, "owner": "a", "do": "waitFor", "resource": "X"},
      {"at": 0, "owner": "b", "do": "waitFor", "resource": "Y"},
      {"at": 0, "owner": "q", "do": "waitFor", "resource": "S"},
      {"at": 50, "owner": "r", "do": "waitFor", "resource": "S"},
      {"at": 100, "owner": "a", "do": "release", "resource": "X"},
      {"at": 200, "owner": "a", "do": "waitFor", "resource": "Y", "timeout": 2},
      {"at": 1000, "do": "setState", "resource": "S", "activated": false}],
    "expect": [{"owner": "a", "outcome": "stopped"}, {"resource": "S", "holders": ["r"]}]})");
  std::vector<std::string> stopped = run.texts(EventKind::Stopped);
  ASSERT_EQ(stopped.size(), 1u);
  EXPECT_NE(stopped[0].find("\" (own release at 1"), std::string::npos) << stopped[0];
  EXPECT_NE(stopped[0].find(" ms left the release flag set)"), std::string::npos) << stopped[0];
  EXPECT_TRUE(has(run.texts(EventKind::State),
                  "the deactivation of S stopped at q, which had not let go within one polling "
                  "period; r was not told and still holds S"));
  EXPECT_TRUE(run.record.allHeld());
}

// The one wait the simulator adds, around calls for an owner that may be handed
// resources down, is logged with its reason.
TEST(Simulation, ACallKeptApartFromTheOwnersRunningCallSaysSo) {
  Played run = play(R"({
    "resources": [{"name": "Head"}, {"name": "Arm"}],
    "modules": [{"name": "M", "onResource": "release"}, {"name": "Q", "onResource": "ignore"}],
    "owners": [{"name": "a", "module": "Q"}, {"name": "a/b", "module": "M"},
               {"name": "c", "module": "Q"}, {"name": "d", "module": "Q"}],
    "actions": [
      {"at": 0, "owner": "c", "do": "waitFor", "resource": "Head"},
      {"at": 0, "owner": "a/b", "do": "waitFor", "resource": "Arm"},
      {"at": 100, "owner": "a/b", "do": "waitFor", "resource": "Head", "timeout": 1},
      {"at": 200, "owner": "d", "do": "waitFor", "resource": "Arm", "timeout": 3}],
    "expect": [{"owner": "d", "outcome": "granted"}]})");
  EXPECT_TRUE(has(run.texts(EventKind::Manager),
                  "a/b's release of Arm waits for a/b's running call: the simulator keeps one "
                  "owner's calls apart, since a hand-down records the giver where a release reads "
                  "it"));
  EXPECT_TRUE(run.record.allHeld());
}
