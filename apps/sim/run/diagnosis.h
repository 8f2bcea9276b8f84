#pragma once

// Diagnosis of a run's waits: the deadlocks among them, the stale ones, and
// how to word them.

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <zuresource/zuobserver.h>
#include <zuresource/zuwaitregistry.h>

#include "run/eventlog.h"
#include "run/expectations.h"
#include "run/runrecord.h"
#include "run/stage.h"

namespace zusim {

/// Logs each deadlock and each stale wait among the waits of one stage's
/// owners once, from the library's events, and keeps them for the
/// expectations and the live page.
///
/// A deadlock is one cycle for as long as the same waiter -> holder
/// (resource) edges stand, reported once with the time it first formed: a
/// waiter whose wait restarts (its holder let go of something else, which
/// sets the holder's release flag) makes the library report the cycle broken
/// and, at the new wait's first poll, formed again.
///
/// Thread safety: thread safe. Lock order: the library's locks (the wait
/// record's, in now()), then mutex_, then the event log's.
class Diagnosis {
 public:
  /// `stage` and `log` must outlive the diagnosis.
  Diagnosis(const Stage& stage, EventLog& log) : stage_(stage), log_(log) {}

  /// A DeadlockFormed, DeadlockBroken or StaleWait event of the library,
  /// which happened at `ms`. Events of other stages' owners are ignored.
  void record(const ZU::ZUEvent& event, long ms);

  std::vector<Finding> deadlocks() const;
  std::vector<Finding> staleWaits() const;
  /// The waits running now, the cycles among them, the stale ones.
  Diagnostics now() const;

 private:
  struct Cycle {
    bool standing = false;
    long brokenMs = 0;
  };
  struct Stale {
    std::uint64_t waitId;
    ZU::ZUWait wait;
    std::chrono::steady_clock::time_point since;
  };

  /// The waits of this stage's owners running now. The wait record's mutex.
  std::vector<ZU::ZUWait> ourWaits() const;
  bool ours(const std::vector<ZU::ZUWait>& waits) const;
  /// "deadlock: a -> b (R), b -> a (L); formed at 402 ms".
  std::string describe(const std::vector<ZU::ZUWait>& edges,
                       std::chrono::steady_clock::time_point formed) const;

  const Stage& stage_;
  EventLog& log_;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::map<std::vector<std::string>, Cycle> cycles_;  // by their edges, sorted
  std::vector<Finding> deadlocks_;
  std::vector<Finding> staleWaits_;
  std::vector<Stale> stale_;  // every stale wait reported, to show those still running
};

}  // namespace zusim
