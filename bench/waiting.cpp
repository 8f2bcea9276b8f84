// Real-time measurements of waiting: these sleep through polling periods, so
// they run once each, outside Google Benchmark's loops.
#include "waiting.h"

#include <time.h>

#include <atomic>
#include <chrono>
#include <thread>

#include <boost/make_shared.hpp>

#include <zuhost/zuos.h>

#include "benchsupport.h"

namespace zubench {

namespace {

using Clock = std::chrono::steady_clock;

/// Sleeps until `holder` has `count` waiters, that is until that many
/// requesters are inside its conflict wait.
void awaitWaiters(const OwnerPtr& holder, std::size_t count) {
  while (holder->copyWaiters().size() < count) ko::os::msleep(1);
}

double processCpuMs() {
  timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

}  // namespace

std::vector<double> measureHandovers(int handovers) {
  const int kPollPeriodMs = ZU::ZUOwnerStrong::kPollPeriodMs;
  ResourcePtr resource = boost::make_shared<ZU::ZUResource>("Head", nullptr);
  std::vector<double> latencies;
  for (int i = 0; i < handovers; ++i) {
    OwnerPtr holder = makeOwner("holder" + std::to_string(i));
    OwnerPtr waiter = makeOwner("waiter" + std::to_string(i));
    resource->waitFor(holder, "", -1, waitForAll());

    Clock::time_point returned;
    std::thread requester([&] {
      resource->waitFor(waiter, "", -1, waitForAll());
      returned = Clock::now();
    });
    awaitWaiters(holder, 1);
    // Spread the release over the waiter's polling period.
    ko::os::msleep(static_cast<unsigned>((i * 37) % kPollPeriodMs));
    const Clock::time_point released = Clock::now();
    resource->release(holder);
    requester.join();
    latencies.push_back(msBetween(released, returned));
    resource->release(waiter);
  }
  return latencies;
}

double measureWaitingCpu(int threads, int seconds) {
  ResourcePtr resource = boost::make_shared<ZU::ZUResource>("Head", nullptr);
  OwnerPtr holder = makeOwner("holder");
  resource->waitFor(holder, "", -1, waitForAll());

  std::vector<OwnerPtr> requesters;
  std::vector<std::thread> waiting;
  for (int i = 0; i < threads; ++i) {
    requesters.push_back(makeOwner("requester" + std::to_string(i)));
    waiting.emplace_back([&resource, owner = requesters.back()] {
      try {
        resource->waitFor(owner, "", -1, waitForAll());
      } catch (const ZU::ZUError&) {
        // "box stop while waiting": the end of the measurement.
      }
    });
  }
  awaitWaiters(holder, static_cast<std::size_t>(threads));

  const double before = processCpuMs();
  ko::os::msleep(static_cast<unsigned>(seconds * 1000));
  const double spent = processCpuMs() - before;

  for (const OwnerPtr& owner : requesters) resource->release(owner);
  for (std::thread& thread : waiting) thread.join();
  resource->release(holder);
  return spent;
}

}  // namespace zubench
