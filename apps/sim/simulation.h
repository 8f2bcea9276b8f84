#pragma once

// The run: plays a scenario's timeline for real on its stage.

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "diagnosis.h"
#include "eventlog.h"
#include "expectations.h"
#include "runrecord.h"
#include "scenario.h"
#include "stage.h"
#include "timeline.h"

namespace zusim {

/// Plays one scenario. Each owner's actions run in that owner's own thread, in
/// time order, a blocking waitFor delaying the owner's later actions; the
/// manager's actions (setState, releaseState, stop) run in a thread of their
/// own, timed expectations in another, and a watcher samples the resources
/// every few ms to see waits begin and to draw the timeline. The watcher also
/// has the diagnosis look for deadlocks at each sample and for stale waits
/// every 100 ms.
///
/// Thread safety: run() is called once, from one thread; the RunView and
/// World queries may be called from any thread at any time, also during run().
/// Lock order: the library's locks, then an owner's `calls`, then mutex_, then
/// the timeline's and the diagnosis's, then the event log's.
class Simulation : public World, public RunView {
 public:
  /// Builds the stage. `scenario` and `log` must outlive the simulation.
  Simulation(const Scenario& scenario, EventLog& log);
  ~Simulation() override;
  Simulation(const Simulation&) = delete;
  Simulation& operator=(const Simulation&) = delete;

  RunRecord run();

  std::vector<std::string> statusLines() override { return stage_.statusLines(); }
  Diagnostics diagnostics() override { return diagnosis_.now(); }
  std::string explain(const std::string& owner, const std::string& resource) override;

  std::string holderOf(const std::string& resource) override { return stage_.holderOf(resource); }
  std::vector<std::string> holdersOf(const std::string& resource) override {
    return stage_.holdersOf(resource);
  }
  bool isActivated(const std::string& resource) override;
  std::vector<Outcome> outcomesOf(const std::string& owner) override;
  std::vector<std::string> notifiedOf(const std::string& module) override;
  std::vector<Finding> deadlocks() override { return diagnosis_.deadlocks(); }
  std::vector<Finding> staleWaits() override { return diagnosis_.staleWaits(); }

 private:
  struct Owner;
  /// One look at every resource, taken by the watcher.
  struct Sample {
    std::map<std::string, std::string> holder;                // plain -> owner name
    std::map<std::string, std::vector<std::string>> holders;  // state -> owner names
    std::map<std::string, bool> activated;                    // state -> activated
    struct Waiters {
      std::string holder;       // an owner's name, or a state resource's
      bool activation = false;  // the waits for a state resource's activation
      std::vector<std::string> modules;
    };
    std::vector<Waiters> waiters;  // same order in every sample
  };

  // Actions. Each takes the library's locks through the library calls, the
  // owner's `calls` mutex around the calls made for an owner that may be
  // handed resources down, and mutex_ only between library calls, briefly,
  // to record what happened.

  /// Blocks until run() has made every thread and restarted the clock (mutex_).
  void awaitStart();
  /// Runs `actions` (the owner's own, in time order), then counts itself done.
  void ownerThread(Owner& owner, const std::vector<const ActionEntry*>& actions);
  /// Runs setState, releaseState and stop in time order.
  void managerThread(const std::vector<const ActionEntry*>& actions);
  /// Checks the timed expectations at their times into `results`, which the
  /// caller reads after joining this thread.
  void checkerThread(std::vector<ExpectResult>& results);
  /// Logs the request, calls waitFor, logs a hand-down, then finish().
  void waitFor(Owner& owner, const ActionEntry& action);
  /// Calls release for `owner` and logs what it gave up and to whom; `why` ends
  /// the log line.
  void release(Owner& owner, const std::string& resource, const std::string& why);
  void switchOwner(Owner& owner, const ActionEntry& action);
  /// setState or releaseState, from the manager's thread.
  void setState(const ActionEntry& action);
  /// Module number `module`'s "__onResource__", in the module's task thread.
  void onResource(std::size_t module, const std::string& resource);
  /// The manager stops `owner`'s pending wait by releasing what it waits for.
  void stopWaiting(Owner& owner, const std::string& why);
  /// Records and logs how a request ended; for a failed one, also the members
  /// it took on the way and gave back. Reads the holders first, then mutex_.
  void finish(Owner& owner, const Outcome& outcome);

  // Observation.

  /// The watcher's loop: sample, observe(), then the diagnosis.
  void watch();
  /// Reads every resource and every owner's waiters through the library (no
  /// lock of ours; a state resource busy telling its holders keeps the
  /// holders of the last sample, so that the watcher never waits).
  Sample sample();
  /// Turns the changes since the last sample into spans and waiting events.
  /// Called by the thread that samples, with mutex_ held.
  void observe(const Sample& now, long ms);
  /// A new entry in a holder's waiters: finds whose wait it is. mutex_ held.
  void noticeWaiter(const Sample& now, const Sample::Waiters& on, const std::string& module,
                    long ms);
  /// An entry left: ends the oldest open wait of that module on `holder`, as
  /// the library removes the oldest entry. mutex_ held.
  void endWaiter(const std::string& holder, const std::string& module, long ms);

  Owner& ownerNamed(const std::string& name);

  // Immutable after construction.
  const Scenario& scenario_;
  EventLog& log_;
  Stage stage_;
  std::vector<std::unique_ptr<Owner>> owners_;  // in the stage's order

  Timeline timeline_;
  Diagnosis diagnosis_;

  std::atomic<bool> watching_{false};
  Sample last_;  // the watcher's previous sample; only the thread that samples uses it

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::vector<std::vector<std::string>> notified_;  // by module number
  int running_ = 0;                                 // owner threads not yet done
  bool started_ = false;                            // the run's threads may go
  std::condition_variable ownersDone_;
  std::condition_variable go_;
};

}  // namespace zusim
