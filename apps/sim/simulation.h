#pragma once

// The runner: builds the resource tree, the broker, its modules and the
// owners of a scenario, and plays the scenario's timeline for real.

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zuhost/zubroker.h>
#include <zuresource/zuresource.h>
#include <zuresource/zuresourcestate.h>

#include "eventlog.h"
#include "expectations.h"
#include "scenario.h"

namespace zusim {

/// A stretch of time on one resource's lane: a holding, a wait or an
/// activation. `toMs` is negative while it lasts.
struct Span {
  std::string resource;
  std::string owner;   // empty for a deactivation's wait and an activation
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

/// Plays one scenario. Each owner's actions run in that owner's own thread, in
/// time order, a blocking waitFor delaying the owner's later actions; the
/// manager's actions (setState, releaseState, stop) run in a thread of their
/// own, timed expectations in another, and a watcher samples the resources
/// every few ms to see waits begin and to draw the timeline.
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

 private:
  struct Owner;
  struct Module;
  /// One look at every resource, taken by the watcher.
  struct Sample {
    std::map<std::string, std::string> holder;                // plain -> owner name
    std::map<std::string, std::vector<std::string>> holders;  // state -> owner names
    std::map<std::string, bool> activated;                    // state -> activated
    struct Waiters {
      std::string holder;        // an owner's name, or a state resource's
      bool activation = false;   // the waits for a state resource's activation
      std::vector<std::string> modules;
    };
    std::vector<Waiters> waiters;  // same order in every sample
  };

  // Actions.
  void ownerThread(Owner& owner, const std::vector<const ActionSpec*>& actions);
  void managerThread(const std::vector<const ActionSpec*>& actions);
  void checkerThread(std::vector<ExpectResult>& results);
  void waitFor(Owner& owner, const ActionSpec& action);
  void release(Owner& owner, const std::string& resource, const std::string& why);
  void switchOwner(Owner& owner, const ActionSpec& action);
  void setState(const ActionSpec& action);
  void onResource(Module& module, const std::string& resource);
  void stopWaiting(Owner& owner, const std::string& why);
  void finish(Owner& owner, const Outcome& outcome);

  // Observation.
  void watch();
  Sample sample();
  /// Turns the changes since the last sample into spans and waiting events.
  /// Called with mutex_ held.
  void observe(const Sample& now, long ms);
  void noticeWaiter(const Sample& now, const Sample::Waiters& on, const std::string& module,
                    long ms);
  void endWaiter(const std::string& holder, const std::string& module, long ms);
  /// Plain leaves of `resource` -> holder name. No lock of ours.
  std::map<std::string, std::string> leafHolders(const std::string& resource);
  /// Whether `owner` holds `leaf` (a plain or state resource) now.
  bool holds(const std::string& leaf, const std::string& owner);
  static void close(std::vector<Span>& spans, const std::string& resource,
                    const std::string& owner, long ms);

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

  std::atomic<bool> watching_{false};
  Sample last_;  // the watcher's previous sample; only the thread that samples uses it

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::vector<Span> holdings_;
  std::vector<Span> waits_;
  std::vector<Span> activations_;
  int running_ = 0;  // owner threads not yet done
  std::condition_variable ownersDone_;
};

}  // namespace zusim
