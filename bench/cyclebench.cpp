// The single-resource cases: the uncontended cycle, the already-held request,
// the two queries and the hand-down path, each beside its floor: the lock
// operations that the algorithm must perform, on the same host lock types,
// with nothing else around them.
#include <chrono>
#include <mutex>

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>

#include <zuresource/zucontract.h>

#include "benchsupport.h"

namespace zubench {

namespace {

using ZU::ZUCriticalSection;
using ZU::ZUCriticalSectionRead;
using ZU::ZUCriticalSectionWrite;
using ZU::ZUCriticalTrueIfLocked;

/// The locks of one plain resource, one holder and one requester, made like
/// the library makes them.
struct FloorLocks {
  boost::shared_ptr<ZU::ZUMutexRW> currentOwnerMutex = ZU::ZUMutexRW::createZUMutexRW();
  boost::shared_ptr<ZU::ZUMutex> waitMutex = ZU::ZUMutex::createZUMutex();
  boost::shared_ptr<ZU::ZUMutex> ownerMutex = ZU::ZUMutex::createZUMutex();
  boost::shared_ptr<ZU::ZUMutexRW> conflictMutex = ZU::ZUMutexRW::createZUMutexRW();

  // isResourceFree, as the first step of every waitFor.
  void freeTest() { ZUCriticalSectionWrite lock(currentOwnerMutex); }
  // release: settle the owner, then the read side for the rest.
  void release() {
    { ZUCriticalSection settle(ownerMutex); }
    ZUCriticalSectionRead lock(currentOwnerMutex);
  }
};

ResourcePtr makePlain() { return boost::make_shared<ZU::ZUResource>("Head", nullptr); }

void plainCycle(benchmark::State& state) {
  ResourcePtr resource = makePlain();
  OwnerPtr owner = makeOwner("box/a");
  for (auto _ : state) {
    benchmark::DoNotOptimize(resource->waitFor(owner, "", -1, waitForAll()));
    resource->release(owner);
  }
}

void floorCycle(benchmark::State& state) {
  FloorLocks locks;
  for (auto _ : state) {
    locks.freeTest();
    {
      bool busy = false;
      ZUCriticalTrueIfLocked pass(locks.waitMutex, busy);
      ZUCriticalSectionWrite take(locks.currentOwnerMutex);
      ZUCriticalSection taking(locks.ownerMutex);
      benchmark::DoNotOptimize(busy);
    }
    locks.release();
  }
}

// Passes an owner handle by value, as the library's virtual operations take it.
__attribute__((noinline)) void passByValue(OwnerPtr owner) {
  benchmark::DoNotOptimize(owner.get());
}

// The floor plus the reference counting that the interface itself requires:
// the owner handle passed by value to waitFor, to the placeholder's conflict
// and to release, and the holder handle replaced twice (taken, given back).
void floorCycleWithHandles(benchmark::State& state) {
  FloorLocks locks;
  OwnerPtr owner = makeOwner("box/a");
  OwnerPtr placeholder = makeOwner(ZU::contract::kPlaceholderName);
  ZU::ZUHolderHandle holder;
  holder.store(placeholder);
  for (auto _ : state) {
    passByValue(owner);
    locks.freeTest();
    {
      bool busy = false;
      ZUCriticalTrueIfLocked pass(locks.waitMutex, busy);
      passByValue(owner);
      ZUCriticalSectionWrite take(locks.currentOwnerMutex);
      ZUCriticalSection taking(locks.ownerMutex);
      holder.store(owner);
    }
    passByValue(owner);
    locks.release();
    holder.store(placeholder);
  }
}

void timedMutexPair(benchmark::State& state) {
  std::timed_mutex mutex;
  for (auto _ : state) {
    benchmark::DoNotOptimize(mutex.try_lock_for(std::chrono::seconds(1)));
    mutex.unlock();
  }
}

void mutexPair(benchmark::State& state) {
  std::mutex mutex;
  for (auto _ : state) {
    mutex.lock();
    mutex.unlock();
  }
}

void heldWaitFor(benchmark::State& state) {
  ResourcePtr resource = makePlain();
  OwnerPtr owner = makeOwner("box/a");
  resource->waitFor(owner, "", -1, waitForAll());
  for (auto _ : state) benchmark::DoNotOptimize(resource->waitFor(owner, "", -1, waitForAll()));
  resource->release(owner);
}

void floorHeld(benchmark::State& state) {
  FloorLocks locks;
  for (auto _ : state) {
    locks.freeTest();
    bool busy = false;
    ZUCriticalTrueIfLocked pass(locks.waitMutex, busy);
    benchmark::DoNotOptimize(busy);
  }
}

void isResourceFree(benchmark::State& state) {
  ResourcePtr resource = makePlain();
  for (auto _ : state) benchmark::DoNotOptimize(resource->isResourceFree());
}

void floorIsResourceFree(benchmark::State& state) {
  FloorLocks locks;
  for (auto _ : state) locks.freeTest();
}

void isResourceOwned(benchmark::State& state) {
  ResourcePtr resource = makePlain();
  OwnerPtr owner = makeOwner("box/a");
  resource->waitFor(owner, "", -1, waitForAll());
  const std::string module = "box/aModule";
  for (auto _ : state) benchmark::DoNotOptimize(resource->isResourceOwned(module));
  resource->release(owner);
}

// isResourceOwned takes no lock: its floor is reading the holder's module
// name through a plain handle and comparing it.
void floorIsResourceOwned(benchmark::State& state) {
  OwnerPtr holder = makeOwner("box/a");
  const std::string module = "box/aModule";
  for (auto _ : state) {
    benchmark::DoNotOptimize(holder);
    benchmark::DoNotOptimize(holder->moduleName == module);
  }
}

// The holder "box" hands the resource down to its descendant "box/c" at once;
// the descendant's release gives it back to "box".
void handDown(benchmark::State& state) {
  ResourcePtr resource = makePlain();
  OwnerPtr parent = makeOwner("box");
  OwnerPtr child = makeOwner("box/c");
  resource->waitFor(parent, "", -1, waitForAll());
  for (auto _ : state) {
    benchmark::DoNotOptimize(resource->waitFor(child, "", -1, waitForAll()));
    resource->release(child);
  }
  resource->release(parent);
}

void floorHandDown(benchmark::State& state) {
  FloorLocks locks;
  for (auto _ : state) {
    locks.freeTest();
    {
      bool busy = false;
      ZUCriticalTrueIfLocked pass(locks.waitMutex, busy);
      ZUCriticalSectionRead conflict(locks.conflictMutex);
      benchmark::DoNotOptimize(busy);
    }
    locks.release();
  }
}

}  // namespace

void registerCycleBenchmarks() {
  benchmark::RegisterBenchmark("cycle/plain", plainCycle);
  benchmark::RegisterBenchmark("floor/cycle", floorCycle);
  benchmark::RegisterBenchmark("floor/cycle+handles", floorCycleWithHandles);
  benchmark::RegisterBenchmark("baseline/timed_mutex", timedMutexPair);
  benchmark::RegisterBenchmark("baseline/mutex", mutexPair);
  benchmark::RegisterBenchmark("held/waitFor", heldWaitFor);
  benchmark::RegisterBenchmark("floor/held", floorHeld);
  benchmark::RegisterBenchmark("query/isResourceFree", isResourceFree);
  benchmark::RegisterBenchmark("floor/isResourceFree", floorIsResourceFree);
  benchmark::RegisterBenchmark("query/isResourceOwned", isResourceOwned);
  benchmark::RegisterBenchmark("floor/isResourceOwned", floorIsResourceOwned);
  benchmark::RegisterBenchmark("handdown/cycle", handDown);
  benchmark::RegisterBenchmark("floor/handdown", floorHandDown);
}

}  // namespace zubench
