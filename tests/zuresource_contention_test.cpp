// Several owners contest one plain resource from real threads.

#include <atomic>
#include <chrono>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zuresource.h>

#include "support/holdlog.h"
#include "support/resourcehelpers.h"

namespace {

using Clock = zutest::HoldLog::Clock;
using OwnerPtr = boost::shared_ptr<ZU::ZUOwner>;
using Names = std::vector<std::string>;

// Waits have a finite limit: a waiter whose conflict starts on a holder that
// is just releasing clears that holder's release flag and sits out its limit
// although the resource is free. Such timeouts are counted, not failed.
const int kWaitLimitS = 2;
const std::chrono::milliseconds kContestFor(1500);

class ResourceContention : public ::testing::Test {
 protected:
  /// Waits as a new owner (as each run of a box is: a released owner would
  /// fail its next wait); the owner once it holds, or empty after a timeout.
  OwnerPtr take(const std::string& name) {
    OwnerPtr owner = zutest::makeOwner(name, name + "Module");
    auto error = zutest::errorOf(
        [&] { EXPECT_EQ(head->waitFor(owner, "", kWaitLimitS, Names()), Names()) << name; });
    if (error) {
      EXPECT_EQ(error->getDescription(), "resource wait has timeouted on Head") << name;
      ++timeouts;
      return OwnerPtr();
    }
    EXPECT_EQ(head->currentOwner.load()->name, name);
    ++taken;
    return owner;
  }

  /// Holds the resource for `ms`, records the hold and releases.
  void hold(const OwnerPtr& owner, Clock::time_point got, int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    EXPECT_EQ(head->currentOwner.load()->name, owner->name) << "taken from a holder";
    holds.add(owner->name, got, Clock::now());
    head->release(owner);
  }

  /// A round takes the resource and holds it briefly; with `handDown`, it
  /// first hands it down to a descendant which hands it back at once (a waiter
  /// whose conflict starts on the descendant is never told of the hand-back).
  std::function<void()> round(const std::string& name, bool handDown) {
    return [this, name, handDown] {
      OwnerPtr owner = take(name);
      if (!owner) return;
      const Clock::time_point got = Clock::now();
      if (handDown) {
        OwnerPtr child = take(name + "/hand");
        EXPECT_TRUE(child);
        if (child) hold(child, Clock::now(), 0);
      }
      hold(owner, got, 3);
    };
  }

  boost::shared_ptr<ZU::ZUResource> head = boost::make_shared<ZU::ZUResource>("Head", nullptr);
  zutest::HoldLog holds;
  std::atomic<int> taken{0};
  std::atomic<int> timeouts{0};
};

TEST_F(ResourceContention, OnlyADescendantHoldsWhileItsAncestorDoes) {
  const std::vector<std::function<void()>> rounds{round("arm", true), round("leg", true),
                                                  round("torso", false), round("neck", false),
                                                  round("tail", false)};
  // Each round runs over and over in a thread of its own, with random pauses.
  const Clock::time_point end = Clock::now() + kContestFor;
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < rounds.size(); ++i) {
    threads.emplace_back([&rounds, i, end] {
      std::minstd_rand random(static_cast<unsigned>(i) + 1);
      while (Clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 100));
        rounds[i]();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(holds.overlaps(), Names());
  EXPECT_TRUE(head->isResourceFree());
  ASSERT_TRUE(head->waitMutex->tryLock());
  head->waitMutex->unlock();
  EXPECT_GE(taken.load(), 8) << timeouts.load() << " waits timed out";
}

}  // namespace
