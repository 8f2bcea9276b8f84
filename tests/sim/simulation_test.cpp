// Each event of a real run is told of the right owner and resource, and only when it happened.
#include "run/simulation.h"

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

/// Runs scenario `file` of the test scenarios (their descriptions say what each sets up).
Played play(const std::string& file) {
  Scenario scenario = loadScenario(std::string(ZUSIM_SCENARIOS) + "/" + file);
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

TEST(Simulation, WaitsAreToldOfTheRequesterNotOfTheModule) {
  Played run = play("requester_not_module.json");
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

TEST(Simulation, HandDownIsToldOnlyWhenTheHolderYields) {
  Played run = play("hand_down.json");
  EXPECT_EQ(run.texts(EventKind::HandedDown),
            (std::vector<std::string>{"Head is handed down from a to ab"}));
  EXPECT_EQ(run.texts(EventKind::HandedBack),
            (std::vector<std::string>{"Head is handed back from ab to a",
                                      "Head is handed back from ab to a"}));
  EXPECT_EQ(run.texts(EventKind::Released), (std::vector<std::string>{"a releases Head"}));
  EXPECT_TRUE(run.record.allHeld());
}

TEST(Simulation, DeadlockIsLoggedOnceNamingEveryEdge) {
  Played run = play("deadlock_ring.json");
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

TEST(Simulation, DeadlockIsReportedOnceWhileItsEdgesStand) {
  Played run = play("deadlock_restarted.json");
  std::vector<std::string> deadlocks = run.texts(EventKind::Deadlock);
  ASSERT_EQ(deadlocks.size(), 1u);
  EXPECT_EQ(deadlocks[0].rfind("deadlock: a -> b (R), b -> a (L); formed at 1", 0), 0u)
      << deadlocks[0];
  EXPECT_EQ(run.texts(EventKind::Waiting).size(), 2u);
}

TEST(Simulation, StaleWaitIsLoggedOnce) {
  Played run = play("stale_wait.json");
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

TEST(Simulation, RunEndsShortlyAfterStopAt) {
  Played run = play("stop_at.json");
  EXPECT_LT(run.record.endMs, 1000 + 3 * 200);
  std::vector<std::string> manager = run.texts(EventKind::Manager);
  for (const char* line :
       {"actions[5] of a (at 200 ms) is dropped: the scenario stopped at 1000 ms",
        "Slow's release of Z is dropped: the scenario stopped at 1000 ms",
        "the scenario stops: the manager stops d, still waiting for Z"})
    EXPECT_TRUE(has(manager, line)) << line;
  EXPECT_TRUE(run.record.allHeld());
}

TEST(Simulation, ExplainsAStopOfItsOwnAndADeactivationThatStoppedEarly) {
  Played run = play("explained_stops.json");
  std::vector<std::string> stopped = run.texts(EventKind::Stopped);
  ASSERT_EQ(stopped.size(), 1u);
  EXPECT_NE(stopped[0].find("\" (own release at 1"), std::string::npos) << stopped[0];
  EXPECT_NE(stopped[0].find(" ms left the release flag set)"), std::string::npos) << stopped[0];
  EXPECT_TRUE(has(run.texts(EventKind::State),
                  "the deactivation of S stopped at q, which had not let go within one polling "
                  "period; r was not told and still holds S"));
  EXPECT_TRUE(run.record.allHeld());
}

TEST(Simulation, ACallKeptApartFromTheOwnersRunningCallSaysSo) {
  Played run = play("calls_kept_apart.json");
  EXPECT_TRUE(has(run.texts(EventKind::Manager),
                  "a/b's release of Arm waits for a/b's running call: the simulator keeps one "
                  "owner's calls apart, since a hand-down records the giver where a release reads "
                  "it"));
  EXPECT_TRUE(run.record.allHeld());
}
