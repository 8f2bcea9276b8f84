// Groups and state resources: a group cycle over N plain members, and a state
// resource's grant + release while K other owners hold it.
#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>

#include <zuresource/zuresourcestate.h>

#include "benchsupport.h"

namespace zubench {

namespace {

void groupCycle(benchmark::State& state) {
  auto group = boost::make_shared<ZU::ZUResourceList>("Body", nullptr);
  for (int i = 0; i < state.range(0); ++i)
    group->addResource(boost::make_shared<ZU::ZUResource>("R" + std::to_string(i), nullptr));
  OwnerPtr owner = makeOwner("box/a");
  for (auto _ : state) {
    benchmark::DoNotOptimize(group->waitFor(owner, "", -1, waitForAll()));
    group->release(owner);
  }
}

void stateCycle(benchmark::State& state) {
  auto standing = boost::make_shared<ZU::ZUResourceState>("Standing", nullptr);
  standing->setState(true);
  std::vector<OwnerPtr> others;
  for (int i = 0; i < state.range(0); ++i) {
    others.push_back(makeOwner("other" + std::to_string(i)));
    standing->waitFor(others.back(), "", -1, waitForAll());
  }
  OwnerPtr owner = makeOwner("box/a");
  for (auto _ : state) {
    benchmark::DoNotOptimize(standing->waitFor(owner, "", -1, waitForAll()));
    standing->release(owner);
  }
}

}  // namespace

void registerGroupBenchmarks() {
  // Named "group/cycle/<members>" and "state/cycle/<other holders>".
  benchmark::RegisterBenchmark("group/cycle", groupCycle)->Arg(1)->Arg(8)->Arg(64)->Arg(512);
  benchmark::RegisterBenchmark("state/cycle", stateCycle)->Arg(0)->Arg(100)->Arg(1000);
}

}  // namespace zubench
