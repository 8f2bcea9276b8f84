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

using ZU::ZUResource;
using Clock = zutest::HoldLog::Clock;
using OwnerPtr = boost::shared_ptr<ZU::ZUOwner>;
using Names = std::vector<std::string>;

// Every wait has a finite limit. A waiter that starts a conflict on a holder
// which is just releasing clears that holder's release flag; nobody releases
// that holder again, so the waiter sits out its limit although the resource
// is free. Such timeouts are counted, not failed.
const int kWaitLimitS = 2;
const std::chrono::milliseconds kContestFor(1500);

class ResourceContention : public ::testing::Test {
 protected:
  /// Waits for the resource as a new owner named `name`; returns the owner
  /// when it holds the resource, or an empty handle after a timeout. Each
  /// round is a new owner, as each run of a box is: a released owner keeps its
  /// release flag and would fail its next wait with "box stop while waiting".
  OwnerPtr take(const std::string& name) {
    OwnerPtr owner = zutest::makeOwner(name, name + "Module");
    try {
      EXPECT_EQ(head->waitFor(owner, "", kWaitLimitS, Names()), Names()) << name;
    } catch (const ZU::ZUError& e) {
      EXPECT_EQ(e.getModule(), "ResourceManager");
      EXPECT_EQ(e.getDescription(), "resource wait has timeouted on Head") << name;
      ++timeouts;
      return OwnerPtr();
    }
    EXPECT_EQ(head->currentOwner.load()->name, name);
    ++taken;
    return owner;
  }

  /// Holds the resource for `ms`, records the hold and releases.
  void hold(const OwnerPtr& owner, Clock::time_point got, int ms = 3) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    EXPECT_EQ(head->currentOwner.load()->name, owner->name) << "taken from a holder";
    holds.add(owner->name, got, Clock::now());
    head->release(owner);
  }

  std::function<void()> plainRound(const std::string& name) {
    return [this, name] {
      if (OwnerPtr owner = take(name)) hold(owner, Clock::now());
    };
  }

  /// The owner takes the resource, hands it down to a descendant, which hands
  /// it back at once; then the owner holds and releases it. A waiter whose
  /// conflict starts on the descendant is never told of the hand-back and sits
  /// out its limit, so the descendant keeps it as briefly as it can.
  std::function<void()> handDownRound(const std::string& name) {
    return [this, name] {
      OwnerPtr parent = take(name);
      if (!parent) return;
      const Clock::time_point got = Clock::now();
      OwnerPtr child = take(name + "/hand");  // extends the name: handed down at once
      EXPECT_TRUE(child);
      if (child) hold(child, Clock::now(), 0);
      hold(parent, got);
    };
  }

  /// Runs each round over and over in a thread of its own, with short random
  /// pauses, until kContestFor has passed.
  void contest(const std::vector<std::function<void()>>& rounds) {
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
  }

  void expectCleanEnd() {
    EXPECT_EQ(holds.overlaps(), Names());
    EXPECT_TRUE(head->isResourceFree());
    ASSERT_TRUE(head->waitMutex->tryLock());
    head->waitMutex->unlock();
    EXPECT_GE(taken.load(), 8) << timeouts.load() << " waits timed out";
  }

  boost::shared_ptr<ZUResource> head = boost::make_shared<ZUResource>("Head", nullptr);
  zutest::HoldLog holds;
  std::atomic<int> taken{0};
  std::atomic<int> timeouts{0};
};

TEST_F(ResourceContention, UnrelatedOwnersNeverHoldTogether) {
  contest({plainRound("alpha"), plainRound("bravo"), plainRound("charlie"),
           plainRound("delta"), plainRound("echo")});
  expectCleanEnd();
}

TEST_F(ResourceContention, OnlyADescendantHoldsWhileItsAncestorDoes) {
  contest({handDownRound("arm"), handDownRound("leg"), plainRound("torso"),
           plainRound("neck")});
  expectCleanEnd();
}

}  // namespace
