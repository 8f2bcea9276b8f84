// Owners taking turns on one resource: what the waiting costs in processor
// time while the resource changes hands, and how fast it changes hands.
#include "contention.h"

#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include <boost/make_shared.hpp>

#include <zuhost/zuos.h>

#include "benchsupport.h"

namespace zubench {

namespace {

using Clock = std::chrono::steady_clock;

double processCpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

/// Grants and handovers, shared by the contenders.
class HandoverLog {
 public:
  void granted() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++grants_;
    if (released_) maxHandover_ = std::max(maxHandover_, Clock::now() - releasedAt_);
    released_ = false;
  }
  void released() {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
    releasedAt_ = Clock::now();
  }
  int grants() {
    std::lock_guard<std::mutex> lock(mutex_);
    return grants_;
  }
  double maxHandoverMs() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::chrono::duration<double, std::milli>(maxHandover_).count();
  }

 private:
  std::mutex mutex_;
  int grants_ = 0;
  bool released_ = false;
  Clock::time_point releasedAt_;
  Clock::duration maxHandover_{};
};

}  // namespace

ContentionResult measureContention(int contenders, int groupMembers, int holdMs, int seconds) {
  ResourcePtr resource;
  if (groupMembers > 0) {
    auto group = boost::make_shared<ZU::ZUResourceList>("Body", nullptr);
    for (int i = 0; i < groupMembers; ++i)
      group->addResource(boost::make_shared<ZU::ZUResource>("R" + std::to_string(i), nullptr));
    resource = group;
  } else {
    resource = boost::make_shared<ZU::ZUResource>("Head", nullptr);
  }

  HandoverLog log;
  std::atomic<bool> stop(false);
  std::atomic<int> errors(0);
  std::vector<std::thread> threads;
  for (int i = 0; i < contenders; ++i) {
    threads.emplace_back([&, i] {
      while (!stop) {
        // A new owner object for each request: an owner that has released is
        // flagged as released, and a wait of its own would end at once.
        // (100 + i: no name is a prefix of another; a prefix would make its
        // owner an ancestor, whose resource is handed down at once.)
        OwnerPtr owner = makeOwner("contender" + std::to_string(100 + i));
        try {
          resource->waitFor(owner, "", 1, waitForAll());
        } catch (const ZU::ZUError&) {
          ++errors;
          continue;
        }
        log.granted();
        ko::os::msleep(static_cast<unsigned>(holdMs));
        log.released();
        resource->release(owner);
      }
    });
  }

  const double cpuBefore = processCpuSeconds();
  const int grantsBefore = log.grants();
  const Clock::time_point start = Clock::now();
  ko::os::msleep(static_cast<unsigned>(seconds * 1000));
  const double wall = std::chrono::duration<double>(Clock::now() - start).count();
  ContentionResult result;
  result.coreShare = (processCpuSeconds() - cpuBefore) / wall;
  result.grantsPerSecond = (log.grants() - grantsBefore) / wall;

  stop = true;  // every wait ends within its limit of 1 s
  for (std::thread& thread : threads) thread.join();
  result.maxHandoverMs = log.maxHandoverMs();
  result.errors = errors;
  return result;
}

}  // namespace zubench
