// The plain resource: node and queries, acquisition, hand-over, release, reports.

#include <atomic>
#include <functional>
#include <future>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <gtest/gtest.h>

#include <zuhost/zuerror.h>
#include <zuhost/zumutex.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuowner.h>
#include <zuresource/zuresource.h>

#include "support/asyncrun.h"
#include "support/resourcehelpers.h"

namespace {

/// A test owner whose conflict() answers from a script (declines by default)
/// and counts its calls. The counter is atomic, the script immutable.
class ScriptedOwner final : public ZU::ZUOwner {
 public:
  /// conflict()'s answer for a resource name and a requester; may throw.
  using Script = std::function<bool(const std::string&, const boost::shared_ptr<ZU::ZUOwner>&)>;

  /// ownerType "eScripted", mutexes of its own, `waiters` left invalid.
  ScriptedOwner(
      const std::string& name, const std::string& moduleName,
      Script script = [](auto&, auto&) { return false; })
      : script_(std::move(script)) {
    this->name = name;
    this->moduleName = moduleName;
    ownerType = "eScripted";
    ownerMutex = ZU::ZUMutex::createZUMutex();
    conflictMutex = ZU::ZUMutexRW::createZUMutexRW();
    waitersMutex = ZU::ZUMutexRW::createZUMutexRW();
  }
  /// Waits for running conflict() calls to return. Takes: conflictMutex (write).
  ~ScriptedOwner() { ZU::ZUCriticalSectionWrite waitForConflicts(conflictMutex); }

  /// Counts the call, then runs the script. Takes: conflictMutex (read).
  bool conflict(const std::string& resourceName, boost::shared_ptr<ZU::ZUOwner> requester,
                int /*timeout*/) override {
    ZU::ZUCriticalSectionRead running(conflictMutex);
    ++conflicts_;
    return script_(resourceName, requester);
  }

  /// Sets the release flag. No lock.
  void freeResource() override { resourceFreed = true; }

  int conflicts() const { return conflicts_.load(); }

 private:
  const Script script_;
  std::atomic<int> conflicts_{0};
};

using ZU::ZUResource;
using OwnerPtr = boost::shared_ptr<ZU::ZUOwner>;
using Names = std::vector<std::string>;
using zutest::errorOf;

OwnerPtr strong(const std::string& name) { return zutest::makeOwner(name, name + "Module"); }

class ResourceTest : public ::testing::Test {
 protected:
  /// Whether another thread could take waitMutex now (a thread may not
  /// try-lock a mutex that it holds itself).
  bool waitMutexUnlocked() const {
    auto tryLock = [r = head.get()] {
      const bool free = r->waitMutex->tryLock();
      if (free) r->waitMutex->unlock();
      return free;
    };
    return std::async(std::launch::async, tryLock).get();
  }
  Names acquire(const OwnerPtr& owner, const Names& noWaitList = Names()) {
    return head->waitFor(owner, "label", 1, noWaitList);
  }

  boost::shared_ptr<ZUResource> head = boost::make_shared<ZUResource>("Head", nullptr);
};

TEST_F(ResourceTest, WaitForAsksOnlyOtherHoldersAndTheirErrorLeavesTheHolder) {
  // A holder named "emptyOwner" reads free, yet it is asked.
  auto impostor = boost::make_shared<ScriptedOwner>(ZU::contract::kPlaceholderName, "Ghost");
  head->switchOwner(impostor, "", 0);
  EXPECT_TRUE(head->isResourceFree());
  OwnerPtr box = strong("box");
  EXPECT_TRUE(acquire(box).empty());
  EXPECT_EQ(impostor->conflicts(), 1);
  EXPECT_EQ(head->currentOwner.load(), box);

  auto holder = boost::make_shared<ScriptedOwner>("box", "Walker", [](auto&, auto&) -> bool {
    throw ZU::ZUError("ScriptedOwner", "conflict", "scripted failure", "tests", 0);
  });
  head->switchOwner(holder, "", 0);
  EXPECT_TRUE(acquire(holder).empty());
  EXPECT_TRUE(acquire(boost::make_shared<ScriptedOwner>("box", "Other")).empty());  // a namesake
  EXPECT_EQ(holder->conflicts(), 0);
  auto e = errorOf([&] { acquire(strong("req")); });  // the holder's error passes through
  ASSERT_TRUE(e);
  EXPECT_EQ(e->getDescription(), "scripted failure");
  EXPECT_EQ(head->currentOwner.load(), holder);
  EXPECT_TRUE(waitMutexUnlocked());
}

// Free and listed, it is taken: the explain tests.
TEST_F(ResourceTest, NoWaitListGivesUpOnlyWhenBusyAndListed) {
  auto yielder =
      boost::make_shared<ScriptedOwner>("yielder", "Walker", [](auto&, auto&) { return true; });
  head->switchOwner(yielder, "", 0);
  EXPECT_EQ(acquire(strong("req"), Names{"Arm", "Head"}), Names{"Head"});
  EXPECT_EQ(yielder->conflicts(), 0);
  EXPECT_EQ(head->currentOwner.load(), yielder);

  // Busy but not listed (names match whole): the holder is asked and yields.
  OwnerPtr requester = strong("req");
  EXPECT_TRUE(acquire(requester, Names{"head", "Head ", ""}).empty());
  EXPECT_EQ(head->currentOwner.load(), requester);
  EXPECT_EQ(yielder->conflicts(), 1);
  EXPECT_TRUE(waitMutexUnlocked());
}

TEST_F(ResourceTest, WaitForAsksADecliningHolderUnderWaitMutexUntilItLetsGo) {
  std::atomic<int> calls(0);
  std::atomic<bool> askedUnlocked(false);
  auto stubborn = boost::make_shared<ScriptedOwner>(
      "stubborn", "Walker", [&](const std::string& resource, const OwnerPtr&) {
        if (waitMutexUnlocked()) askedUnlocked = true;
        EXPECT_EQ(resource, "Head");
        if (++calls == 3) head->release(head->currentOwner.load());  // lets go at last
        return false;
      });
  head->switchOwner(stubborn, "", 0);

  OwnerPtr box = strong("box");
  EXPECT_TRUE(acquire(box).empty());
  EXPECT_EQ(head->currentOwner.load(), box);
  EXPECT_EQ(stubborn->conflicts(), 3);
  EXPECT_TRUE(stubborn->resourceFreed);
  EXPECT_FALSE(askedUnlocked) << "the holder was asked without waitMutex held";
  EXPECT_TRUE(waitMutexUnlocked());
}

TEST_F(ResourceTest, HandDownIsHandedBackWithoutFreeResourceAndTheRecordOutlivesIt) {
  OwnerPtr parent = strong("box"), child = strong("box/arm");
  ASSERT_TRUE(acquire(parent).empty());
  ASSERT_TRUE(acquire(child).empty());

  head->release(child);
  EXPECT_EQ(head->currentOwner.load(), parent);
  EXPECT_FALSE(parent->resourceFreed || child->resourceFreed);
  head->release(parent);
  EXPECT_TRUE(head->isResourceFree() && parent->resourceFreed && !child->resourceFreed);

  // An ordinary acquisition, yet the release goes to the recorded parent while it lives.
  ASSERT_TRUE(acquire(child).empty());
  head->release(child);
  EXPECT_EQ(head->currentOwner.load(), parent);
  EXPECT_FALSE(child->resourceFreed);
  head->release(parent);
  parent.reset();
  ASSERT_TRUE(acquire(child).empty());
  head->release(child);
  EXPECT_TRUE(head->isResourceFree() && child->resourceFreed);
}

TEST_F(ResourceTest, SwitchOwnerReplacesAHolderInConflictAndTellsNobody) {
  OwnerPtr first = strong("first"), waiter = strong("waiter"), second = strong("second");
  ASSERT_TRUE(acquire(first).empty());
  zutest::WaitForRun run(head, waiter, 5);
  ASSERT_TRUE(zutest::waitUntil([&] { return first->copyWaiters().size() == 1; }));

  head->switchOwner(second, "", 0);
  EXPECT_EQ(head->currentOwner.load(), second);
  EXPECT_FALSE(zutest::waitUntil([&] { return !run.running(); }, 300)) << "the waiter was told";
  EXPECT_FALSE(first->resourceFreed || second->resourceFreed);

  // The waiter moves on to the new holder once the old one lets go.
  head->release(first);
  ASSERT_TRUE(zutest::waitUntil([&] { return second->copyWaiters().size() == 1; }));
  head->release(second);
  EXPECT_TRUE(zutest::waitReturned(run.wait()));
  EXPECT_EQ(head->currentOwner.load(), waiter);
  waiter->timeout = 2400;  // its latest wait in ms, shown in whole seconds
  EXPECT_EQ(head->httpGet(0), "---Head -> waiterModule eStrong null 2<br />");
}

}  // namespace
