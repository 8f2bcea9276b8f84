// The host's scoped try-lock. A reader re-entering while a writer waits is a
// group test (zuresourcelist_test), where the library depends on it.
#include <thread>

#include <gtest/gtest.h>

#include <zuhost/zumutex.h>

using namespace ZU;

namespace {

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
