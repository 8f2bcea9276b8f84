#pragma once

// Diagnosis of a run's waits: the deadlocks among them, the stale ones, and
// how to word them.

#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <zuresource/zustalewaitchecker.h>
#include <zuresource/zuwaitregistry.h>

#include "eventlog.h"
#include "expectations.h"
#include "runrecord.h"
#include "stage.h"

namespace zusim {

/// Finds the deadlocks and stale waits among the waits of one stage's
/// owners, logs each once, and keeps them for the expectations and the live
/// page. The wait record is the process's: a test may run several stages.
///
/// Thread safety: thread safe. findDeadlocks() and findStaleWaits() are
/// called by one thread at a time. Lock order: the library's locks (the wait
/// record's, the checker's reads), then mutex_, then the event log's.
class Diagnosis {
 public:
  /// `stage` and `log` must outlive the diagnosis.
  Diagnosis(const Stage& stage, EventLog& log) : stage_(stage), log_(log) {}

  /// Logs each cycle of waits the first time it is seen.
  void findDeadlocks();
  /// Runs the stale-wait check and logs each stale wait once.
  void findStaleWaits();

  std::vector<Finding> deadlocks() const;
  std::vector<Finding> staleWaits() const;
  /// The waits running now, the cycles among them, the last check's stale waits.
  Diagnostics now() const;

 private:
  /// The waits of this stage's owners running now. The wait record's mutex.
  std::vector<ZU::ZUWait> ourWaits() const;
  /// "deadlock: a -> b (R), b -> a (L); formed at 402 ms".
  std::string describe(const ZU::ZUWaitCycle& cycle) const;

  const Stage& stage_;
  EventLog& log_;
  // Used by the finding thread only: the cycles logged so far, by their
  // waits' ids, and the checker, which remembers what it saw.
  std::set<std::vector<std::uint64_t>> cyclesSeen_;
  ZU::ZUStaleWaitChecker staleChecker_;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::vector<Finding> deadlocks_;
  std::vector<Finding> staleWaits_;
  std::vector<std::string> staleNow_;  // the stale waits of the last check
};

}  // namespace zusim
