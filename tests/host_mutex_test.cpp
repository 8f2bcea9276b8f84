// The host's locks: reader re-entry while a writer waits, and the scoped
// try-lock's contract.
#include <atomic>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include <zuhost/zumutex.h>
#include <zuhost/zuos.h>

#include "support/guardedthread.h"

using namespace ZU;
using zutest::GuardedThread;
using zutest::Latch;

namespace {

// A group releasing after a failure takes its read lock again while holding
// it; a writer may be waiting by then. A writer-preferring lock deadlocks:
//   A: read lock        B: write lock (waits for A)
//   A: read lock again (waits behind B)  -> neither moves.
TEST(MutexRW, AReaderReentersWhileAWriterWaits) {
  struct State {  // shared with the threads that a deadlock would leave stuck
    boost::shared_ptr<ZUMutexRW> rw = ZUMutexRW::createZUMutexRW();
    Latch readerHolds, writerWaiting;
    std::atomic<bool> writerGotIt{false};
  };
  auto s = std::make_shared<State>();
  GuardedThread reader([s] {
    ZUCriticalSectionRead outer(s->rw);
    s->readerHolds.countDown();
    s->writerWaiting.wait();
    ko::os::msleep(200);  // let the writer block in its lock call
    EXPECT_FALSE(s->writerGotIt);
    ZUCriticalSectionRead inner(s->rw);
  });
  s->readerHolds.wait();
  GuardedThread writer([s] {
    s->writerWaiting.countDown();
    ZUCriticalSectionWrite lock(s->rw);
    s->writerGotIt = true;
  });
  EXPECT_TRUE(reader.joinFor(5000)) << "the reader deadlocked behind the waiting writer";
  EXPECT_TRUE(writer.joinFor(5000)) << "the writer never got the lock";
}

TEST(TryLock, HoldsAFreeMutexToItsScopeEndAndNeverUnlocksABusyOne) {
  auto mutex = ZUMutex::createZUMutex();
  bool busy = true;
  {
    ZUCriticalTrueIfLocked lock(mutex, busy);
    EXPECT_FALSE(busy);
    std::thread([&] {
      { ZUCriticalTrueIfLocked other(mutex, busy); }
      EXPECT_TRUE(busy);
      EXPECT_FALSE(mutex->tryLock()) << "the busy try-lock undid the other's hold";
    }).join();
  }
  std::thread([&] {  // another thread: a try-lock by the owner itself is undefined
    if (mutex->tryLock())
      mutex->unlock();
    else
      ADD_FAILURE() << "not let go at the end of its scope";
  })
      .join();
}

}  // namespace
