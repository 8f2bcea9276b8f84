// The plain resource: node and queries, acquisition, hand-over, release, reports.

#include <atomic>
#include <future>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zuresource.h>
#include <zuresource/zuresourcelist.h>

#include "support/resourcehelpers.h"
#include "support/scriptedowner.h"
#include "support/waitforrun.h"

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
    return std::async(std::launch::async, [r] {
             if (!r->waitMutex->tryLock()) return false;
             r->waitMutex->unlock();
             return true;
           }).get();
  }
  Names acquire(const OwnerPtr& owner, const Names& noWaitList = Names()) {
    return head->waitFor(owner, "label", 1, noWaitList);
  }

  boost::shared_ptr<ZUResource> head = boost::make_shared<ZUResource>("Head", nullptr);
};

TEST_F(ResourceTest, NodeStartsFreeAnswersOnlyItsNameAndRefusesMembers) {
  EXPECT_TRUE(head->isResourceFree());
  EXPECT_EQ(head->currentOwner.load(), head->emptyOwner);
  EXPECT_EQ(head->emptyOwner->ownerType, "eWeak");
  EXPECT_TRUE(head->isResourceOwned("emptyOwner"));
  EXPECT_FALSE(head->isResourceOwned(""));
  EXPECT_NE(ZUResource("Head", nullptr).emptyOwner, head->emptyOwner);
  EXPECT_TRUE(head->isInGroup("Head"));
  for (const char* other : {"", "Hea", "HeadX", "head"}) EXPECT_FALSE(head->isInGroup(other));

  auto added = errorOf([&] { head->addResource(boost::make_shared<ZUResource>("Arm", nullptr)); });
  auto deleted = errorOf([&] { head->deleteResource("Head"); });
  ASSERT_TRUE(added && deleted);
  EXPECT_EQ(added->getMethod(), "addResource");
  EXPECT_EQ(added->getLine(), 57u);
  EXPECT_EQ(deleted->getMethod(), "deleteResource");
  EXPECT_EQ(deleted->getLine(), 63u);
  for (const auto& e : {*added, *deleted}) {
    EXPECT_EQ(e.getModule(), "ZUResource");
    EXPECT_EQ(e.getSourceFile(), "behavior/lib/zuresource/zuresource/zuresource");
  }
  EXPECT_FALSE(head->isInGroup("Arm"));

  auto body = boost::make_shared<ZU::ZUResourceList>("Body", nullptr);
  ZUResource arm("Arm", body);  // the parent is recorded, not joined
  EXPECT_EQ(arm.parent.lock(), body);
  EXPECT_FALSE(body->isInGroup("Arm"));
}

TEST(ResourceFactory, EveryOwnerIsStrongWhateverTheKind) {
  auto hierarchy = boost::make_shared<ZU::ZUHierarchyOwner>();
  for (int kind : {0, 7}) {
    OwnerPtr owner = ZUResource::createOwner(kind, "box/a", "Walker", hierarchy);
    EXPECT_NE(dynamic_cast<ZU::ZUOwnerStrong*>(owner.get()), nullptr) << kind;
    EXPECT_EQ(owner->ownerType + owner->name + owner->moduleName, "eStrongbox/aWalker");
    EXPECT_EQ(owner->hierarchyOwner, hierarchy);
  }
}

TEST_F(ResourceTest, WaitForTakesAFreeResourceAndAsksNobodyForTheHoldersName) {
  // A holder named "emptyOwner" reads free, yet it is asked.
  auto impostor = ScriptedOwner::create("emptyOwner", "Ghost");
  head->switchOwner(impostor, "", 0);
  EXPECT_TRUE(head->isResourceFree());
  EXPECT_TRUE(head->isResourceOwned("Ghost"));
  EXPECT_EQ(head->httpGet(0), "---Head<br />");
  EXPECT_EQ(head->ownersGet().serializeToText(), "[\"Head\"]");
  OwnerPtr box = strong("box");
  EXPECT_TRUE(acquire(box).empty());
  EXPECT_EQ(impostor->conflicts(), 1);
  EXPECT_EQ(head->currentOwner.load(), box);
  EXPECT_TRUE(head->isResourceOwned("boxModule"));

  auto holder = ScriptedOwner::create("box", "Walker", ScriptedOwner::fail());
  head->switchOwner(holder, "", 0);
  EXPECT_TRUE(acquire(holder).empty());
  EXPECT_TRUE(acquire(ScriptedOwner::create("box", "Other")).empty());  // a namesake
  EXPECT_EQ(holder->conflicts(), 0);
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
  for (const Names& noWaitList : {Names(), Names{"head", "Head ", ""}}) {
    head->switchOwner(yielder, "", 0);
    OwnerPtr requester = strong("req");
    EXPECT_TRUE(acquire(requester, noWaitList).empty());
    EXPECT_EQ(head->currentOwner.load(), requester);
  }
  EXPECT_EQ(yielder->conflicts(), 2);
  EXPECT_TRUE(waitMutexUnlocked());
}

TEST_F(ResourceTest, WaitForAsksADecliningHolderUnderWaitMutexUntilItLetsGo) {
  ZUResource* r = head.get();
  std::atomic<int> calls(0);
  std::atomic<bool> askedUnlocked(false);
  auto stubborn = ScriptedOwner::create(
      "stubborn", "Walker", [&](const std::string& resource, const OwnerPtr&) {
        if (waitMutexUnlocked()) askedUnlocked = true;
        EXPECT_EQ(resource, "Head");
        if (++calls == 3) r->release(r->currentOwner.load());  // lets go at last
        return false;
      });
  head->switchOwner(stubborn, "", 0);

  OwnerPtr box = strong("box");
  EXPECT_TRUE(acquire(box).empty());
  EXPECT_EQ(head->currentOwner.load(), box);
  EXPECT_EQ(stubborn->conflicts(), 3);
  EXPECT_EQ(stubborn->frees(), 1);
  EXPECT_FALSE(askedUnlocked) << "the holder was asked without waitMutex held";
  EXPECT_TRUE(waitMutexUnlocked());
}

TEST_F(ResourceTest, AnErrorFromConflictLeavesHolderAndWaitMutexAsTheyWere) {
  // A holder that throws, and a strong holder whose timeout passes through.
  const OwnerPtr holders[] = {ScriptedOwner::create("failing", "Walker", ScriptedOwner::fail()),
                              strong("box")};
  const char* errors[] = {"scripted failure", "resource wait has timeouted on Head"};
  for (int i : {0, 1}) {
    head->switchOwner(holders[i], "", 0);
    auto e = errorOf([&] { head->waitFor(strong("req"), "", 0, Names()); });
    ASSERT_TRUE(e);
    EXPECT_EQ(e->getDescription(), errors[i]);
    EXPECT_EQ(head->currentOwner.load(), holders[i]);
    EXPECT_TRUE(waitMutexUnlocked());
  }
}

TEST_F(ResourceTest, HandDownIsHandedBackWithoutFreeResourceAndTheRecordOutlivesIt) {
  OwnerPtr parent = strong("box");
  OwnerPtr child = strong("box/arm");
  ASSERT_TRUE(acquire(parent).empty());
  ASSERT_TRUE(acquire(child).empty());
  EXPECT_EQ(head->currentOwner.load(), child);

  OwnerPtr other = strong("other");
  head->release(other);  // not the holder: only the releaser is told
  EXPECT_EQ(head->currentOwner.load(), child);
  EXPECT_TRUE(other->resourceFreed);

  head->release(child);
  EXPECT_EQ(head->currentOwner.load(), parent);
  EXPECT_FALSE(parent->resourceFreed || child->resourceFreed);
  head->release(parent);
  EXPECT_TRUE(head->isResourceFree());
  EXPECT_TRUE(parent->resourceFreed);
  EXPECT_FALSE(child->resourceFreed);

  // An ordinary acquisition, yet the release goes to the recorded parent
  // while it lives.
  ASSERT_TRUE(acquire(child).empty());
  head->release(child);
  EXPECT_EQ(head->currentOwner.load(), parent);
  EXPECT_FALSE(child->resourceFreed);
  head->release(parent);
  parent.reset();
  ASSERT_TRUE(acquire(child).empty());
  head->release(child);
  EXPECT_TRUE(head->isResourceFree());
  EXPECT_TRUE(child->resourceFreed);
}

TEST_F(ResourceTest, SwitchOwnerReplacesAHolderInConflictAndTellsNobody) {
  OwnerPtr first = strong("first");
  OwnerPtr waiter = strong("waiter");
  ASSERT_TRUE(acquire(first).empty());
  zutest::WaitForRun run(head, waiter, 5);
  ASSERT_TRUE(zutest::waitUntil([&] { return first->copyWaiters().size() == 1; }));

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
}

// --- Reports -----------------------------------------------------------------------

TEST_F(ResourceTest, ReportsShowTheIndentedNameAndWhenHeldTheHoldersModule) {
  OwnerPtr walker = zutest::makeOwner("box", "Walker");
  for (int depth : {-7, -1, 0, 2}) {
    const std::string indent(depth < 0 ? 0 : 3 * (depth + 1), '-');
    EXPECT_EQ(head->httpGet(depth), indent + "Head<br />");
    ASSERT_TRUE(acquire(walker).empty());
    EXPECT_EQ(head->httpGet(depth), indent + "Head -> Walker eStrong null 0<br />");
    head->release(walker);
  }
  EXPECT_EQ(head->ownersGet().serializeToText(), "[\"Head\"]");
  ASSERT_TRUE(acquire(walker).empty());
  EXPECT_EQ(head->ownersGet().serializeToText(), "[\"Head\",\"Walker\",null]");

  OwnerPtr dancer = zutest::makeOwner("dancer", "Dancer");
  zutest::WaitForRun run(head, dancer, 5);
  ASSERT_TRUE(zutest::waitUntil([&] { return walker->copyWaiters().size() == 1; }));
  EXPECT_EQ(head->httpGet(0), "---Head -> Walker eStrong [\"Dancer\"] 0<br />");
  EXPECT_EQ(head->ownersGet().serializeToText(), "[\"Head\",\"Walker\",[\"Dancer\"]]");
  head->release(walker);
  EXPECT_TRUE(zutest::waitReturned(run.wait()));
  EXPECT_EQ(head->httpGet(0), "---Head -> Dancer eStrong null 0<br />");
  dancer->timeout = 2400;  // its latest wait in ms, shown in whole seconds
  EXPECT_EQ(head->httpGet(1), "------Head -> Dancer eStrong null 2<br />");
}

TEST_F(ResourceTest, OwnersGetHidesNamesStartingWithZUOnly) {
  OwnerPtr walker = zutest::makeOwner("box", "Walker");
  for (const std::string& name : {std::string("ZU"), std::string("ZUHead"), std::string("ZU\0", 3)}) {
    ZUResource hidden(name, nullptr);
    EXPECT_FALSE(hidden.ownersGet().isValid()) << name;
    hidden.switchOwner(walker, "", 0);
    EXPECT_FALSE(hidden.ownersGet().isValid()) << name;
  }
  for (const std::string name : {"Zu", "zu", "zU", "Z", "", "UZ"}) {
    ZUResource shown(name, nullptr);
    shown.switchOwner(walker, "", 0);
    EXPECT_EQ(shown.ownersGet().serializeToText(), "[\"" + name + "\",\"Walker\",null]");
  }
}

}  // namespace
