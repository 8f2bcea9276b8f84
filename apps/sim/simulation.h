#pragma once

// The runner: builds the resource tree, the broker, its modules and the
// owners of a scenario, and plays the scenario's timeline for real.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zuhost/zubroker.h>

#include <zuresource/zuresource.h>
#include <zuresource/zuresourcestate.h>
#include <zuresource/zustalewaitchecker.h>
#include <zuresource/zuwaitregistry.h>

#include "eventlog.h"
#include "expectations.h"
#include "scenario.h"

namespace zusim {

/// A stretch of time on one resource's lane: a holding, a wait or an
/// activation. `toMs` is negative while it lasts.
struct Span {
  std::string resource;
  std::string owner;  // empty for a deactivation's wait and an activation
  long fromMs = 0;
  long toMs = -1;
  std::string holder;  // waits: the owner waited on
};

/// Everything a run leaves behind for the report.
struct RunRecord {
  std::vector<Span> holdings;
  std::vector<Span> waits;
  std::vector<Span> activations;
  std::vector<ExpectResult> results;
  std::vector<std::string> finalStatus;  // httpGet(0) of every root resource
  long endMs = 0;
  bool allHeld() const;
};

/// The waits running now and what is wrong with them, as lines of text for
/// the live page.
struct Diagnostics {
  std::vector<std::string> waits;       // oldest first, as the library words them
  std::vector<std::string> deadlocks;   // the cycles among them
  std::vector<std::string> staleWaits;  // as of the last check
};

/// Plays one scenario. Each owner's actions run in that owner's own thread, in
/// time order, a blocking waitFor delaying the owner's later actions; the
/// manager's actions (setState, releaseState, stop) run in a thread of their
/// own, timed expectations in another, and a watcher samples the resources
/// every few ms to see waits begin and to draw the timeline. The watcher also
/// logs each deadlock (a cycle of waits) as soon as it sees it, and each stale
/// wait found by a check every 100 ms. Waits are read from the library's
/// process-wide record, keeping those of this scenario's owners.
///
/// Thread safety: run() is called once, from one thread; statusLines() and the
/// World queries may be called from any thread at any time, also during run().
/// Lock order: the library's locks, then mutex_, then the event log's.
class Simulation : public World {
 public:
  /// Builds the world. `log` must outlive the simulation.
  Simulation(const Scenario& scenario, EventLog& log);
  ~Simulation() override;
  Simulation(const Simulation&) = delete;
  Simulation& operator=(const Simulation&) = delete;

  RunRecord run();

  /// The status page: each root resource's httpGet(0), as the library renders it.
  std::vector<std::string> statusLines();

  std::string holderOf(const std::string& resource) override;
  std::vector<std::string> holdersOf(const std::string& resource) override;
  bool isActivated(const std::string& resource) override;
  std::vector<Outcome> outcomesOf(const std::string& owner) override;
  std::vector<std::string> notifiedOf(const std::string& module) override;
  std::vector<Finding> deadlocks() override;
  std::vector<Finding> staleWaits() override;

  /// The waits running now, the deadlocks among them and the stale waits of
  /// the last check. The wait record's mutex, then mutex_.
  Diagnostics diagnostics();
  /// What waitFor(owner, resource) with no no-wait list would do now, with no
  /// side effect, in one line. Throws std::invalid_argument naming an unknown
  /// owner or resource. The library's locks of its status reports; none of ours.
  std::string explain(const std::string& owner, const std::string& resource);

 private:
  struct Owner;
  struct Module;
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
  // owner's `calls` mutex around the calls made for a descendant owner, and
  // mutex_ only between library calls, briefly, to record what happened.

  /// Blocks until run() has made every thread and restarted the clock (mutex_).
  void awaitStart();
  /// Runs `actions` (the owner's own, in time order), then counts itself done
  /// (mutex_).
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
  /// The module's "__onResource__", in the module's task thread.
  void onResource(Module& module, const std::string& resource);
  /// The manager stops `owner`'s pending wait by releasing what it waits for.
  void stopWaiting(Owner& owner, const std::string& why);
  /// Records and logs how a request ended; for a failed one, also the members
  /// it took on the way and gave back. Reads the holders first, then mutex_.
  void finish(Owner& owner, const Outcome& outcome);

  // Observation.

  /// The watcher's loop: sample, then observe() under mutex_.
  void watch();
  /// Reads every resource and every owner's waiters through the library (no
  /// lock of ours; a state resource busy telling its holders keeps the
  /// holders of the last sample, so that the watcher never waits).
  Sample sample();
  /// Turns the changes since the last sample into spans and waiting events.
  /// Called with mutex_ held.
  void observe(const Sample& now, long ms);
  /// A new entry in a holder's waiters: finds whose wait it is. mutex_ held.
  void noticeWaiter(const Sample& now, const Sample::Waiters& on, const std::string& module,
                    long ms);
  /// An entry left: ends the oldest open wait of that module on `holder`, as
  /// the library removes the oldest entry. mutex_ held.
  void endWaiter(const std::string& holder, const std::string& module, long ms);
  /// Logs each cycle of waits the first time it is seen. The wait record's
  /// mutex, then mutex_. Called by the watcher only.
  void findDeadlocks();
  /// Runs the stale-wait check and logs each stale wait once. The library's
  /// locks (in the check), then mutex_. Called by the watcher only.
  void findStaleWaits();
  /// Whether the waiter is one of this scenario's owners (the wait record is
  /// the process's, and a test may run several scenarios). No lock.
  bool isOurs(const ZU::ZUWait& wait) const;
  /// The waits of this scenario's owners running now. The wait record's mutex.
  std::vector<ZU::ZUWait> ourWaits() const;
  /// "deadlock: a -> b (R), b -> a (L); formed at 402 ms". No lock.
  std::string describe(const ZU::ZUWaitCycle& cycle) const;
  /// Plain leaves of `resource` -> holder name. No lock of ours.
  std::map<std::string, std::string> leafHolders(const std::string& resource);
  /// Whether `owner` holds `leaf` (a plain or state resource) now. No lock of
  /// ours; a state resource's holdersMutex.
  bool holds(const std::string& leaf, const std::string& owner);
  /// Ends the open spans of `owner` on `resource` at `ms`.
  static void close(std::vector<Span>& spans, const std::string& resource, const std::string& owner,
                    long ms);

  Owner& ownerNamed(const std::string& name);
  boost::shared_ptr<ZU::ZUResource> resource(const std::string& name) const;
  ZU::ZUResourceState* stateResource(const std::string& name) const;

  // Immutable after construction.
  const Scenario& scenario_;
  EventLog& log_;
  boost::shared_ptr<ZU::ZUBroker> broker_;
  std::map<std::string, boost::shared_ptr<ZU::ZUResource>> resources_;
  std::vector<std::unique_ptr<Owner>> owners_;
  std::vector<std::unique_ptr<Module>> modules_;
  std::vector<boost::shared_ptr<ZU::ZUResource>> roots_;  // the trees the stale check reads

  std::atomic<bool> watching_{false};
  Sample last_;  // the watcher's previous sample; only the thread that samples uses it
  // Only the watcher uses these: the cycles logged so far, by their waits' ids,
  // and the stale-wait check, which remembers what it saw.
  std::set<std::vector<std::uint64_t>> cyclesSeen_;
  ZU::ZUStaleWaitChecker staleChecker_;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::vector<Span> holdings_;
  std::vector<Span> waits_;
  std::vector<Span> activations_;
  std::vector<Finding> deadlocks_;
  std::vector<Finding> staleWaits_;
  std::vector<std::string> staleNow_;  // the stale waits of the last check
  int running_ = 0;                    // owner threads not yet done
  bool started_ = false;               // the run's threads may go
  std::condition_variable ownersDone_;
  std::condition_variable go_;
};

}  // namespace zusim
