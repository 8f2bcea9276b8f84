#pragma once

// The run: plays a scenario's timeline for real on its stage.

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <zuresource/zuobserver.h>

#include "run/diagnosis.h"
#include "run/eventlog.h"
#include "run/expectations.h"
#include "run/runrecord.h"
#include "scenario/scenario.h"
#include "run/stage.h"
#include "run/timeline.h"

namespace zusim {

/// Plays one scenario. Each owner's actions run in that owner's own thread, in
/// time order, a blocking waitFor delaying the owner's later actions; the
/// manager's actions (setState, releaseState, stop, and those on robots and
/// etcd) run in a thread of their own, timed expectations in another. What
/// the library decides (waits, grants, releases, deadlocks, stale waits)
/// reaches the run as the library's events, which draw the timeline and the
/// diagnosis at the times the log prints.
///
/// Thread safety: run() is called once, from one thread; the RunView and
/// World queries may be called from any thread at any time, also during run().
/// Lock order: an owner's `calls`, then the library's locks (the library's
/// events arrive with some of them held), then mutex_, then the timeline's
/// and the diagnosis's, then the event log's. No library call is made with
/// mutex_ held (setting a release flag is an atomic store).
class Simulation : public World, public RunView {
 public:
  /// Builds the stage (on the fleet's etcd `etcd`, see Stage). `scenario`
  /// and `log` must outlive the simulation.
  Simulation(const Scenario& scenario, EventLog& log, const std::vector<std::string>& etcd = {});
  ~Simulation() override;
  Simulation(const Simulation&) = delete;
  Simulation& operator=(const Simulation&) = delete;

  /// Plays the scenario. Throws ScenarioError, having run nothing, when the
  /// system refuses one of its threads.
  RunRecord run();
  /// Ends the run now as stopAt would (its later actions and timed
  /// expectations are dropped), for an interrupted program. Any thread, any
  /// number of times; before run() it makes the run end at once.
  void stopNow();

  std::vector<std::string> statusLines() override { return stage_.statusLines(); }
  Diagnostics diagnostics() override { return diagnosis_.now(); }
  std::string explain(const std::string& owner, const std::string& resource) override;
  /// The scenario's resource trees, for snapshots. Immutable.
  const std::vector<boost::shared_ptr<ZU::ZUResource>>& roots() const { return stage_.roots(); }

  std::string holderOf(const std::string& resource) override { return stage_.holderOf(resource); }
  std::vector<std::string> holdersOf(const std::string& resource) override {
    return stage_.holdersOf(resource);
  }
  bool isActivated(const std::string& resource) override;
  std::vector<Outcome> outcomesOf(const std::string& owner) override;
  std::vector<std::string> notifiedOf(const std::string& module) override;
  std::vector<Finding> deadlocks() override { return diagnosis_.deadlocks(); }
  std::vector<Finding> staleWaits() override { return diagnosis_.staleWaits(); }
  std::vector<Span> waits() override { return timeline_.waits(); }
  std::vector<Span> holdings() override { return timeline_.holdings(); }
  long nowMs() override { return log_.now(); }

 private:
  struct Owner;
  class Events;

  // Actions. Each takes the library's locks through the library calls, the
  // owner's `calls` mutex around the calls made for an owner that may be
  // handed resources down, and mutex_ only between library calls, briefly,
  // to record what happened.

  /// Blocks until run() has made every thread and restarted the clock
  /// (mutex_); false when the run is called off and the thread is to end.
  bool awaitStart();
  /// Runs `actions` (the owner's own, in time order), then counts itself done.
  void ownerThread(Owner& owner, const std::vector<const ActionEntry*>& actions);
  /// Runs setState, releaseState, stop and the actions on robots and etcd in
  /// time order.
  void managerThread(const std::vector<const ActionEntry*>& actions);
  /// Kill, CutOff, Reconnect, EtcdDown, EtcdUp. A killed robot is cut off for
  /// good: its lease runs out, its pending waits are ended, its owners' later
  /// actions and its modules' answers are dropped.
  void fleetAction(const ActionEntry& action);
  /// Ends the pending waits `waits` (owner, resource); no lock of ours held.
  /// The release flag ends a local wait at its next poll; a wait for a fleet
  /// lock ends when its resource is given back locally.
  void interrupt(const std::vector<std::pair<Owner*, std::string>>& waits);
  /// Sleeps until `ms` on the run's clock, or until an interrupted run has
  /// stopped; false when it was interrupted. Takes mutex_.
  bool sleepUntil(long ms);
  /// "the scenario stopped at N ms" (stopAt, or when it was interrupted).
  std::string stoppedText();
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
  /// How many times each module has been told "__onResource__" for `resource`.
  std::vector<std::size_t> notifications(const std::string& resource);
  /// Module number `module`'s "__onResource__", in the module's task thread.
  void onResource(std::size_t module, const std::string& resource);
  /// At stopAt: logs the stop of every wait still running, then sets each
  /// waiter's release flag again at every polling period until every owner's
  /// thread is done (a new wait on a stopped owner clears its flag).
  void stopEverything();
  /// Takes `owner`'s calls lock when it must (see Owner::calls), logging why
  /// when it has to wait for it; `what` names the call that waits.
  std::unique_lock<std::mutex> serialise(Owner& owner, const std::string& what);
  /// Records and logs how a request ended; for a failed one, also the members
  /// it took on the way and gave back. Reads the holders first, then mutex_.
  void finish(Owner& owner, const Outcome& outcome);

  /// One of the library's events, in the thread that caused it (see
  /// ZUObserver for the library's locks it may hold): spans, waiting lines,
  /// members taken on a group's walk, deadlocks and stale waits, each logged
  /// at the time the library stamped it. mutex_ briefly, then the timeline's,
  /// the diagnosis's, the log's.
  void onEvent(const ZU::ZUEvent& event);

  Owner& ownerNamed(const std::string& name);

  // Immutable after construction.
  const Scenario& scenario_;
  EventLog& log_;
  Stage stage_;
  std::vector<std::unique_ptr<Owner>> owners_;  // in the stage's order

  Timeline timeline_;
  Diagnosis diagnosis_;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::vector<std::vector<std::string>> notified_;  // by module number
  int running_ = 0;                                 // owner threads not yet done
  bool started_ = false;                            // the run's threads may go
  bool calledOff_ = false;                          // they end at once: a thread was refused
  bool stopped_ = false;                            // stopAt has passed
  bool interrupted_ = false;                        // stopNow() was called
  long stoppedAtMs_ = 0;                            // when the run was stopped
  std::vector<bool> killed_;                        // by robot number
  std::condition_variable ownersDone_;
  std::condition_variable go_;
  std::condition_variable stopping_;  // notified when stopped_ is set
};

}  // namespace zusim
