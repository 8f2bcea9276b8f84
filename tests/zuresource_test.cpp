// The plain resource: node and queries, acquisition, hand-over, release, reports.

#include <atomic>
#include <future>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuresource.h>
#include <zuresource/zuresourcelist.h>

#include "support/asyncrun.h"
#include "support/resourcehelpers.h"
#include "support/scriptedowner.h"

namespace {

using ZU::ZUResource;
using OwnerPtr = boost::shared_ptr<ZU::ZUOwner>;
using Names = std::vector<std::string>;
using zutest::errorOf;
using zutest::ScriptedOwner;

OwnerPtr strong(const std::string& name) { return zutest::makeOwner(name, name + "Module"); }

class ResourceTest : public ::testing::Test {
 protected:
  /// Whether another thread could take waitMutex now (a thread may not
  /// try-lock a mutex that it holds itself).
  bool waitMutexUnlocked() const {
    ZUResource* r = head.get();
    return std::async(std::launch::async,
                      [r] {
                        if (!r->waitMutex->tryLock()) return false;
                        r->waitMutex->unlock();
                        return true;
                      })
        .get();
  }
  Names acquire(const OwnerPtr& owner, const Names& noWaitList = Names()) {
    return head->waitFor(owner, "label", 1, noWaitList);
  }

  boost::shared_ptr<ZUResource> head = boost::make_shared<ZUResource>("Head", nullptr);
};

TEST_F(ResourceTest, NodeAnswersOnlyItsNameAndRecordsButDoesNotJoinItsParent) {
  EXPECT_TRUE(head->isResourceFree());
  EXPECT_TRUE(head->isResourceOwned(ZU::contract::kPlaceholderName));
  EXPECT_TRUE(head->isInGroup("Head"));
  for (const char* other : {"", "Hea", "HeadX", "head"}) EXPECT_FALSE(head->isInGroup(other));
  auto body = boost::make_shared<ZU::ZUResourceList>("Body", nullptr);
  ZUResource arm("Arm", body);
  EXPECT_EQ(arm.parent.lock(), body);
  EXPECT_FALSE(body->isInGroup("Arm"));
}

TEST_F(ResourceTest, WaitForAsksOnlyOtherHoldersAndTheirErrorLeavesTheHolder) {
  // A holder named "emptyOwner" reads free, yet it is asked.
  auto impostor = ScriptedOwner::create(ZU::contract::kPlaceholderName, "Ghost");
  head->switchOwner(impostor, "", 0);
  EXPECT_TRUE(head->isResourceFree());
  OwnerPtr box = strong("box");
  EXPECT_TRUE(acquire(box).empty());
  EXPECT_EQ(impostor->conflicts(), 1);
  EXPECT_EQ(head->currentOwner.load(), box);

  auto holder = ScriptedOwner::create("box", "Walker", ScriptedOwner::fail());
  head->switchOwner(holder, "", 0);
  EXPECT_TRUE(acquire(holder).empty());
  EXPECT_TRUE(acquire(ScriptedOwner::create("box", "Other")).empty());  // a namesake
  EXPECT_EQ(holder->conflicts(), 0);
  auto e = errorOf([&] { acquire(strong("req")); });  // the holder's error passes through
  ASSERT_TRUE(e);
  EXPECT_EQ(e->getDescription(), "scripted failure");
  EXPECT_EQ(head->currentOwner.load(), holder);
  EXPECT_TRUE(waitMutexUnlocked());
}

TEST_F(ResourceTest, NoWaitListGivesUpOnlyWhenBusyAndListed) {
  OwnerPtr box = strong("box");
  EXPECT_TRUE(acquire(box, Names{"Head"}).empty()) << "free and listed: taken";
  EXPECT_EQ(head->currentOwner.load(), box);

  auto yielder = ScriptedOwner::create("yielder", "Walker", ScriptedOwner::yield());
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
  ZUResource* r = head.get();
  std::atomic<int> calls(0);
  std::atomic<bool> askedUnlocked(false);
  auto stubborn = ScriptedOwner::create("stubborn", "Walker",
                                        [&](const std::string& resource, const OwnerPtr&) {
                                          if (waitMutexUnlocked()) askedUnlocked = true;
                                          EXPECT_EQ(resource, "Head");
                                          if (++calls == 3)
                                            r->release(r->currentOwner.load());  // lets go at last
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
  OwnerPtr parent = strong("box");
  OwnerPtr child = strong("box/arm");
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
  OwnerPtr first = strong("first");
  OwnerPtr waiter = strong("waiter");
  ASSERT_TRUE(acquire(first).empty());
  zutest::WaitForRun run(head, waiter, 5);
  ASSERT_TRUE(zutest::waitUntil([&] { return first->copyWaiters().size() == 1; }));
  EXPECT_EQ(head->httpGet(0), "---Head -> firstModule eStrong [\"waiterModule\"] 0<br />");
  EXPECT_EQ(head->ownersGet().serializeToText(), "[\"Head\",\"firstModule\",[\"waiterModule\"]]");

  OwnerPtr second = strong("second");
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
