// The host's locks: reader re-entry while a writer waits, the scoped
// try-lock's contract, and scoped locks on an empty handle.
#include <atomic>
#include <memory>

#include <gtest/gtest.h>

#include <zuhost/zuerror.h>
#include <zuhost/zumutex.h>
#include <zuhost/zuos.h>

#include "support/guardedthread.h"
#include "support/latch.h"

using namespace ZU;
using zutest::GuardedThread;
using zutest::Latch;

namespace {

/// Whether another thread finds `mutex` free (it takes and gives it back).
bool freeForAnotherThread(const boost::shared_ptr<ZUMutex>& mutex) {
  bool free = false;
  std::thread([&] {
    if ((free = mutex->tryLock())) mutex->unlock();
  }).join();
  return free;
}

// A group releasing after a failure takes its read lock again while holding
// it; a writer may be waiting by then. A writer-preferring lock deadlocks:
//   A: read lock        B: write lock (waits for A)
//   A: read lock again (waits behind B)  -> neither moves.
TEST(MutexRW, AReaderReentersWhileAWriterWaits) {
  // Shared with the threads, which a deadlock would leave stuck.
  struct State {
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
  EXPECT_TRUE(s->writerGotIt);
}

TEST(TryLock, TakesAFreeMutexAndHoldsItToTheEndOfItsScope) {
  auto mutex = ZUMutex::createZUMutex();
  bool busy = true;
  {
    ZUCriticalTrueIfLocked lock(mutex, busy);
    EXPECT_FALSE(busy);
    EXPECT_FALSE(freeForAnotherThread(mutex));
  }
  EXPECT_TRUE(freeForAnotherThread(mutex));
}

TEST(TryLock, ReportsABusyMutexAndNeverUnlocksWhatItDidNotTake) {
  auto mutex = ZUMutex::createZUMutex();
  Latch held, checked;
  GuardedThread other([&] {
    ZUCriticalSection lock(mutex);
    held.countDown();
    checked.wait();
  });
  held.wait();
  bool busy = false;
  { ZUCriticalTrueIfLocked lock(mutex, busy); }
  EXPECT_TRUE(busy);
  EXPECT_FALSE(freeForAnotherThread(mutex)) << "the other thread's hold was undone";
  checked.countDown();
  ASSERT_TRUE(other.joinFor(5000));
  EXPECT_TRUE(freeForAnotherThread(mutex));
}

TEST(ScopedLocks, AnEmptyHandleThrowsAndLeavesTheFlag) {
  EXPECT_THROW(ZUCriticalSection lock((boost::shared_ptr<ZUMutex>())), ZUError);
  EXPECT_THROW(ZUCriticalSectionRead lock((boost::shared_ptr<ZUMutexRW>())), ZUError);
  EXPECT_THROW(ZUCriticalSectionWrite lock((boost::shared_ptr<ZUMutexRW>())), ZUError);
  bool busy = true;
  EXPECT_THROW(ZUCriticalTrueIfLocked lock(boost::shared_ptr<ZUMutex>(), busy), ZUError);
  EXPECT_TRUE(busy);
}

}  // namespace
