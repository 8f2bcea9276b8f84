#include <chrono>
#include <condition_variable>
#include <cstdint>

#include <zuhost/zumutex.h>
#include <zuhost/zuwaitpoint.h>

namespace ZU {

namespace {

struct SleepPair {
  ZUMutex mutex;  // guards nothing: held from a sleeper's check until its sleep
  std::condition_variable changed;
};

SleepPair& sleepPairFor(const ZUWaitPoint* point) {
  const std::size_t kPairs = 61;  // prime: addresses are multiples of their alignment
  // Never destroyed: a thread may still sleep on its pair when the process exits.
  static SleepPair* const pairs = new SleepPair[kPairs];
  return pairs[reinterpret_cast<std::uintptr_t>(point) % kPairs];
}

}  // namespace

bool ZUWaitPoint::park(unsigned ticket, int ms) {
  SleepPair& pair = sleepPairFor(this);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  parked_.fetch_add(1, std::memory_order_seq_cst);
  bool changed;
  {
    ZUMutexLock lock(pair.mutex);
    while (generation_.load(std::memory_order_seq_cst) == ticket &&
           lock.waitUntil(pair.changed, deadline)) {
    }
    changed = generation_.load(std::memory_order_seq_cst) != ticket;  // also at the deadline
  }
  parked_.fetch_sub(1, std::memory_order_seq_cst);
  return changed;
}

void ZUWaitPoint::wakeParked() noexcept {
  SleepPair& pair = sleepPairFor(this);
  { ZUMutexLock settle(pair.mutex); }  // a sleeper is checking or asleep
  pair.changed.notify_all();
}

}  // namespace ZU
