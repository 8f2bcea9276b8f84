// Each event of a real run is told of the right owner and resource, and only when it happened.
#include "run/simulation.h"

#include <algorithm>
#include <map>
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

// What a run logs of one kind: each part is in one of its lines, and there
// are `lines` of them (-1: any number).
TEST(Simulation, EachEventIsLoggedOnceAsItHappens) {
  struct Row {
    const char* file;
    EventKind kind;
    int lines;
    std::vector<std::string> parts;
  } rows[] = {
      // Waits are told of the requester, not of its module.
      {"requester_not_module.json", EventKind::Waiting, 2,
       {"x waits for Head, held by h1", "y waits for Arm, held by h2"}},
      {"requester_not_module.json", EventKind::TimedOut, 2, {}},
      // A hand-down is told only when the holder yields.
      {"hand_down.json", EventKind::HandedDown, 1, {"Head is handed down from a to ab"}},
      {"hand_down.json", EventKind::HandedBack, 2, {"Head is handed back from ab to a"}},
      {"hand_down.json", EventKind::Released, 1, {"a releases Head"}},
      {"deadlock_ring.json", EventKind::Deadlock, 1,
       {"deadlock: x -> y (B), y -> z (C), z -> x (A); formed at "}},
      // Each waits for the arm, not for S: an activated state resource is granted to all.
      {"deadlock_ring.json", EventKind::Waiting, -1,
       {"x waits for B, held by y", "y waits for C, held by z", "z waits for A, held by x"}},
      // Reported once while its edges stand.
      {"deadlock_restarted.json", EventKind::Deadlock, 1,
       {"deadlock: a -> b (R), b -> a (L); formed at 1"}},
      {"deadlock_restarted.json", EventKind::Waiting, 2, {}},
      {"stale_wait.json", EventKind::StaleWait, 1,
       {"stale wait: speaker waits on tracker for Head, which it has not held for "}},
      {"stop_at.json", EventKind::Manager, -1,
       {"actions[5] of a (at 200 ms) is dropped: the scenario stopped at 1000 ms",
        "Slow's release of Z is dropped: the scenario stopped at 1000 ms",
        "the scenario stops: the manager stops d, still waiting for Z"}},
      // A stop of its own explained, and a deactivation that stopped early.
      {"explained_stops.json", EventKind::Stopped, 1,
       {"\" (own release at 1", " ms left the release flag set)"}},
      {"explained_stops.json", EventKind::State, -1,
       {"the deactivation of S stopped at q, which had not let go within one polling period; r "
        "was not told and still holds S"}},
      {"calls_kept_apart.json", EventKind::Manager, -1,
       {"a/b's release of Arm waits for a/b's running call: the simulator keeps one owner's calls "
        "apart, since a hand-down records the giver where a release reads it"}},
  };
  std::map<std::string, Played> runs;
  for (const Row& row : rows) {
    auto run = runs.find(row.file);
    if (run == runs.end()) {
      run = runs.emplace(row.file, play(row.file)).first;
      const Played& played = run->second;
      EXPECT_TRUE(played.record.allHeld()) << row.file;
      // The chart is drawn from the same events as the log, at the times it prints.
      for (const Event& e : played.events)
        EXPECT_TRUE(e.kind != EventKind::Waiting ||
                    std::any_of(played.record.waits.begin(), played.record.waits.end(),
                                [&](const Span& w) {
                                  return w.owner == e.owner && w.resource == e.resource &&
                                         w.fromMs == e.ms;
                                }))
            << e.text;
    }
    std::vector<std::string> texts = run->second.texts(row.kind);
    if (row.lines >= 0) {
      EXPECT_EQ(texts.size(), static_cast<std::size_t>(row.lines)) << row.file;
    }
    for (const std::string& part : row.parts)
      EXPECT_TRUE(std::any_of(texts.begin(), texts.end(), [&](const std::string& text) {
        return text.find(part) != std::string::npos;
      })) << row.file << ": " << part;
  }
  EXPECT_LT(runs["stop_at.json"].record.endMs, 1000 + 3 * 200);  // shortly after stopAt
}
