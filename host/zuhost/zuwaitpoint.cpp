#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include <zuhost/zuwaitpoint.h>

namespace ZU {

namespace {

struct SleepPair {
  std::mutex mutex;
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
    std::unique_lock<std::mutex> lock(pair.mutex);
    changed = pair.changed.wait_until(lock, deadline, [this, ticket] {
      return generation_.load(std::memory_order_seq_cst) != ticket;
    });
  }
  parked_.fetch_sub(1, std::memory_order_seq_cst);
  return changed;
}

void ZUWaitPoint::wakeParked() noexcept {
  SleepPair& pair = sleepPairFor(this);
  { std::lock_guard<std::mutex> settle(pair.mutex); }  // a sleeper is checking or asleep
  pair.changed.notify_all();
}

}  // namespace ZU
