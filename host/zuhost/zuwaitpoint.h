#pragma once

#include <atomic>

namespace ZU {

/// A point where threads sleep until other threads announce a change of
/// something they watch: a generation counter that every announcement bumps,
/// and that a sleeper compares with the generation it read before it looked
/// at what it watches (its ticket).
///
/// Thread safety: thread safe. Both counters are atomic. A sleeper sleeps on
/// one of a fixed set of process-wide mutex + condition variable pairs, chosen
/// by the wait point's address, so a wait point is two counters and owns no
/// kernel object; wait points that share a pair now and then wake each other's
/// sleepers, which check their own generation and sleep again. The pairs are
/// never destroyed, so a wait point may go away while threads still sleep on
/// the pair (not on the wait point: park() must have returned).
///
/// No announcement is lost. wake() bumps the generation, then reads how many
/// threads are parked; park() counts itself parked, then reads the generation
/// under the pair's mutex before it sleeps; all four accesses are sequentially
/// consistent. So either the sleeper reads the new generation and does not
/// sleep, or wake() reads it counted and notifies after taking the pair's
/// mutex, which it cannot take while the sleeper is between its check and its
/// sleep. Every change made before a wake() is thus seen by each thread whose
/// ticket is older than that wake(). (The generation wraps around after 2^32
/// announcements; a sleeper would miss one only if exactly that many came
/// while it slept.)
class ZUWaitPoint {
 public:
  ZUWaitPoint() = default;
  ZUWaitPoint(const ZUWaitPoint&) = delete;
  ZUWaitPoint& operator=(const ZUWaitPoint&) = delete;

  /// The generation now. Read it before looking at what you may sleep on.
  unsigned ticket() const { return generation_.load(std::memory_order_seq_cst); }

  /// Sleeps until the generation is no longer `ticket`, or at most `ms`
  /// milliseconds; returns at once when it has already changed. True when it
  /// changed. Takes: the pair's mutex, released while asleep.
  bool park(unsigned ticket, int ms);

  /// Announces a change: bumps the generation, and wakes every parked thread.
  /// With nobody parked, one atomic increment and one load. Takes: the pair's
  /// mutex, briefly, only when someone is parked; a leaf lock (nothing is
  /// taken inside it), so the caller may hold any lock of its own.
  void wake() noexcept {
    generation_.fetch_add(1, std::memory_order_seq_cst);
    if (parked_.load(std::memory_order_seq_cst) != 0) wakeParked();
  }

 private:
  void wakeParked() noexcept;

  /// Atomic. Bumped by every wake().
  std::atomic<unsigned> generation_{0};
  /// Atomic. Threads inside park().
  std::atomic<unsigned> parked_{0};
};

}  // namespace ZU
