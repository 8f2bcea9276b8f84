#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <zuhost/zuvalue.h>

#include <zuresource/zuowner.h>

namespace ZU {

/// One conflict wait, as it was recorded when it started: `waiter` waits on
/// `holder` for `resource`. Owners are named as the library tells them apart
/// (by name); the handles are weak, so a recorded wait keeps no owner alive
/// and still names a holder that is already gone.
///
/// Thread safety: a plain value; concurrent reads are safe.
struct ZUWait {
  /// Unique in the process; a later wait has a larger id.
  std::uint64_t id = 0;
  std::string waiter;
  std::string waiterModule;
  std::string holder;
  std::string holderModule;
  std::string resource;
  boost::weak_ptr<ZUOwner> waiterOwner;
  boost::weak_ptr<ZUOwner> holderOwner;
  /// When the wait started (steady clock).
  std::chrono::steady_clock::time_point since;
  /// The wait's time limit in seconds, negative for none.
  int timeout = -1;

  /// Milliseconds from `since` to `now`.
  long ageMs(std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now()) const;
  /// "<waiter> (<module>) waits on <holder> (<module>) for <resource>, <age> ms".
  std::string toString() const;
  /// [["waiter",…],["waiterModule",…],["holder",…],["holderModule",…],
  ///  ["resource",…],["ageMs","<decimal>"]].
  ZUValue toValue() const;
};

/// A cycle of waits: each edge's holder is the next edge's waiter and the
/// last edge's holder is the first edge's waiter. Every owner on it waits for
/// another owner on it, so none of the waits can end by a release: they end
/// only at their time limits, or never.
struct ZUWaitCycle {
  /// The edges in the order of the cycle, starting at the owner whose name
  /// sorts first.
  std::vector<ZUWait> edges;

  /// "deadlock: a -[R2]-> b -[R1]-> a".
  std::string toString() const;
  /// An array of the edges' values, in cycle order.
  ZUValue toValue() const;
};

/// The process-wide record of the conflict waits that are running, and the
/// wait-for graph built from it ("owner waits on holder"). Every wait of
/// ZUOwnerStrong::conflict is recorded from the moment it listens for the
/// holder's release (its waiter entry added and the holder's release flag
/// cleared, so that a release after the record appears is seen by the wait,
/// unless a later wait on the same holder clears the flag first) until it
/// ends, whichever way it ends.
///
/// Thread safety: thread safe. One small mutex of its own guards the record;
/// it is taken only to add, remove or copy entries and nothing is called out
/// while it is held, so it nests inside any lock of the library.
class ZUWaitRegistry {
 public:
  /// Records one wait for as long as it lives. Never throws: a wait that
  /// cannot be recorded (no memory) goes unrecorded and runs as it would.
  /// Takes: the registry's mutex, briefly, in the constructor and destructor.
  class Record {
   public:
    /// `timeoutSeconds`: the requester's time limit, negative for none.
    Record(const boost::shared_ptr<ZUOwner>& waiter, ZUOwner& holder, const std::string& resource,
           int timeoutSeconds) noexcept;
    ~Record();
    Record(const Record&) = delete;
    /// The recorded wait's id, 0 when nothing was recorded.
    std::uint64_t id() const { return id_; }
    Record& operator=(const Record&) = delete;

   private:
    std::uint64_t id_;  // 0 when nothing was recorded
  };

  /// The waits running now, oldest first. Takes: the registry's mutex.
  static std::vector<ZUWait> snapshot();
  /// The cycles among the waits running now: findCycles(snapshot()).
  static std::vector<ZUWaitCycle> cycles();
  /// Every elementary cycle of the graph whose nodes are owner names and
  /// whose edges are `waits` (waiter -> holder). Each cycle is reported once,
  /// starting at its first name in byte order; two waits between the same
  /// owners (for two resources) make two cycles. A path that ends at an owner
  /// that waits on nobody is no cycle. An owner that waits on an owner of its
  /// own name is a cycle of one edge. No lock.
  static std::vector<ZUWaitCycle> findCycles(const std::vector<ZUWait>& waits);

  ZUWaitRegistry() = delete;
};

}  // namespace ZU
