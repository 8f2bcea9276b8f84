// The uncontended cycle with observers registered: one that counts the
// events, and the JSON-lines recorder writing to /dev/null (its writer thread
// formats and writes; the cycle's thread only queues, or drops when full).
#include <atomic>

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>

#include <zuobserve/zurecorder.h>

#include "benchsupport.h"

namespace zubench {

namespace {

class CountingObserver : public ZU::ZUObserver {
 public:
  void onEvent(const ZU::ZUEvent&) override { count.fetch_add(1, std::memory_order_relaxed); }
  std::atomic<long> count{0};
};

void observedCycle(benchmark::State& state, const boost::shared_ptr<ZU::ZUObserver>& observer) {
  ResourcePtr resource = boost::make_shared<ZU::ZUResource>("Head", nullptr);
  OwnerPtr owner = makeOwner("box/a");
  ZU::ZUObservers::add(observer);
  for (auto _ : state) {
    benchmark::DoNotOptimize(resource->waitFor(owner, "", -1, waitForAll()));
    resource->release(owner);
  }
  ZU::ZUObservers::remove(observer);
}

void countingCycle(benchmark::State& state) {
  observedCycle(state, boost::make_shared<CountingObserver>());
}

void recorderCycle(benchmark::State& state) {
  auto recorder = boost::make_shared<ZU::ZURecorder>("/dev/null");
  observedCycle(state, recorder);
  state.counters["dropped"] = static_cast<double>(recorder->dropped());
}

}  // namespace

void registerObserveBenchmarks() {
  benchmark::RegisterBenchmark("cycle/observed/counting", countingCycle);
  benchmark::RegisterBenchmark("cycle/observed/recorder", recorderCycle);
}

}  // namespace zubench
