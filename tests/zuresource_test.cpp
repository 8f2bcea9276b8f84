// The plain resource: node and queries, acquisition, hand-over and release.

#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zuresource.h>
#include <zuresource/zuresourcelist.h>

#include "support/resourcehelpers.h"
#include "support/scriptedowner.h"

namespace {

using ZU::ZUError;
using ZU::ZUResource;
using OwnerPtr = boost::shared_ptr<ZU::ZUOwner>;
using Names = std::vector<std::string>;
using zutest::ScriptedOwner;
using zutest::errorOf;
using zutest::makeOwner;
using zutest::waitUntil;

const char* const kSourceFile = "behavior/lib/zuresource/zuresource/zuresource";

OwnerPtr strong(const std::string& name) { return makeOwner(name, name + "Module"); }

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

// --- Node and queries ------------------------------------------------------------

TEST_F(ResourceTest, NewResourceIsFreeAndHeldByItsOwnPlaceholder) {
  EXPECT_EQ(head->name, "Head");
  EXPECT_TRUE(head->isResourceFree());
  EXPECT_EQ(head->currentOwner.load(), head->emptyOwner);
  EXPECT_EQ(head->emptyOwner->name, "emptyOwner");
  EXPECT_EQ(head->emptyOwner->moduleName, "emptyOwner");
  EXPECT_EQ(head->emptyOwner->ownerType, "eWeak");
  EXPECT_TRUE(head->isResourceOwned("emptyOwner"));
  EXPECT_FALSE(head->isResourceOwned(""));
  EXPECT_FALSE(head->isResourceOwned("Head"));

  ZUResource twin("Head", nullptr);
  EXPECT_NE(twin.emptyOwner, head->emptyOwner);
}

TEST_F(ResourceTest, IsInGroupAnswersOnlyItsOwnName) {
  EXPECT_TRUE(head->isInGroup("Head"));
  for (const char* other : {"", "Hea", "HeadX", "head", "Head "})
    EXPECT_FALSE(head->isInGroup(other)) << other;
}

TEST_F(ResourceTest, MembershipChangesAreRefusedAndChangeNothing) {
  OwnerPtr box = strong("box");
  head->switchOwner(box, "", 0);
  auto arm = boost::make_shared<ZUResource>("Arm", nullptr);

  for (const auto& member : {arm, boost::shared_ptr<ZUResource>()}) {
    auto e = errorOf([&] { head->addResource(member); });
    ASSERT_TRUE(e);
    EXPECT_EQ(e->getModule(), "ZUResource");
    EXPECT_EQ(e->getMethod(), "addResource");
    EXPECT_EQ(e->getDescription(), "Add resource only in resource list");
    EXPECT_EQ(e->getSourceFile(), kSourceFile);
    EXPECT_EQ(e->getLine(), 57u);
  }
  for (const char* member : {"Head", "Arm", ""}) {
    auto e = errorOf([&] { head->deleteResource(member); });
    ASSERT_TRUE(e);
    EXPECT_EQ(e->getModule(), "ZUResource");
    EXPECT_EQ(e->getMethod(), "deleteResource");
    EXPECT_EQ(e->getDescription(), "Delete resource only in resource list");
    EXPECT_EQ(e->getSourceFile(), kSourceFile);
    EXPECT_EQ(e->getLine(), 63u);
  }
  EXPECT_EQ(head->currentOwner.load(), box);
  EXPECT_TRUE(head->isInGroup("Head"));
  EXPECT_FALSE(head->isInGroup("Arm"));
}

TEST(ResourceFactory, EveryOwnerIsStrongWhateverTheKind) {
  auto hierarchy = boost::make_shared<ZU::ZUHierarchyOwner>();
  for (int kind : {0, 7}) {
    OwnerPtr owner = ZUResource::createOwner(kind, "box/a", "Walker", hierarchy);
    ASSERT_TRUE(owner);
    EXPECT_NE(dynamic_cast<ZU::ZUOwnerStrong*>(owner.get()), nullptr) << kind;
    EXPECT_EQ(owner->ownerType, "eStrong");
    EXPECT_EQ(owner->name, "box/a");
    EXPECT_EQ(owner->moduleName, "Walker");
    EXPECT_EQ(owner->hierarchyOwner, hierarchy);
    EXPECT_EQ(owner->getThis(), owner);
  }
}

TEST(ResourceParent, ConstructingWithAParentLeavesTheParentAlone) {
  auto body = boost::make_shared<ZU::ZUResourceList>("Body", nullptr);
  auto head = boost::make_shared<ZUResource>("Head", body);
  EXPECT_EQ(head->parent.lock(), body);
  EXPECT_FALSE(body->isInGroup("Head"));
  EXPECT_TRUE(body->getResourceList().empty());
}

TEST(ResourceNames, AnyBytesWorkInResourceAndOwnerNames) {
  const std::string ownerName("o\0p", 3);
  for (const std::string& name :
       {std::string(), std::string("A\0B", 3), std::string("\xff\n\"<br />")}) {
    auto r = boost::make_shared<ZUResource>(name, nullptr);
    EXPECT_TRUE(r->isInGroup(name));
    EXPECT_FALSE(r->isInGroup(name + "x"));

    OwnerPtr owner = strong(ownerName);
    EXPECT_TRUE(r->waitFor(owner, "", 1, Names()).empty());
    EXPECT_TRUE(r->waitFor(strong(ownerName), "", 1, Names()).empty());
    EXPECT_EQ(r->currentOwner.load(), owner);
    EXPECT_EQ(r->waitFor(strong(std::string("o\0q", 3)), "", 1, Names{name}), Names{name});
    EXPECT_EQ(r->httpGet(-1), name + " -> " + ownerName + "Module eStrong null 0<br />");
    r->release(owner);
    EXPECT_TRUE(r->isResourceFree());
    EXPECT_EQ(r->httpGet(-1), name + "<br />");
  }
}

TEST_F(ResourceTest, AnOwnerNamedEmptyOwnerLeavesTheResourceFree) {
  auto impostor = ScriptedOwner::create("emptyOwner", "Ghost");
  head->switchOwner(impostor, "", 0);
  EXPECT_TRUE(head->isResourceFree());
  EXPECT_TRUE(head->isResourceOwned("Ghost"));

  OwnerPtr box = strong("box");
  EXPECT_TRUE(acquire(box).empty());
  EXPECT_EQ(head->currentOwner.load(), box);
  EXPECT_EQ(impostor->conflicts(), 1);
}

// --- Acquisition -----------------------------------------------------------------

TEST_F(ResourceTest, WaitForTakesAFreeResource) {
  OwnerPtr box = strong("box");
  EXPECT_TRUE(acquire(box).empty());
  EXPECT_EQ(head->currentOwner.load(), box);
  EXPECT_FALSE(head->isResourceFree());
  EXPECT_TRUE(head->isResourceOwned("boxModule"));
  EXPECT_TRUE(waitMutexUnlocked());
}

TEST_F(ResourceTest, WaitForByTheHolderOrItsNamesakeAsksNobody) {
  auto holderOwner = ScriptedOwner::create("box", "Walker", ScriptedOwner::fail());
  head->switchOwner(holderOwner, "", 0);
  EXPECT_TRUE(acquire(holderOwner).empty());
  EXPECT_TRUE(acquire(ScriptedOwner::create("box", "Other")).empty());
  EXPECT_EQ(holderOwner->conflicts(), 0);
  EXPECT_EQ(head->currentOwner.load(), holderOwner);
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

  // Busy but not listed: the holder is asked, and its yield hands over.
  for (const Names& noWaitList : {Names(), Names{"Arm"}, Names{"head", "Head ", ""}}) {
    head->switchOwner(yielder, "", 0);
    OwnerPtr requester = strong("req");
    EXPECT_TRUE(acquire(requester, noWaitList).empty());
    EXPECT_EQ(head->currentOwner.load(), requester);
  }
  EXPECT_EQ(yielder->conflicts(), 3);
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
  auto failing = ScriptedOwner::create("failing", "Walker", ScriptedOwner::fail());
  head->switchOwner(failing, "", 0);
  auto e = errorOf([&] { acquire(strong("req")); });
  ASSERT_TRUE(e);
  EXPECT_EQ(e->getDescription(), "scripted failure");
  EXPECT_EQ(head->currentOwner.load(), failing);
  EXPECT_TRUE(waitMutexUnlocked());

  // The strong owner's timeout passes through the same way.
  OwnerPtr box = strong("box");
  head->switchOwner(box, "", 0);
  e = errorOf([&] { head->waitFor(strong("req"), "", 0, Names()); });
  ASSERT_TRUE(e);
  EXPECT_EQ(e->getModule(), "ResourceManager");
  EXPECT_EQ(e->getDescription(), "resource wait has timeouted on Head");
  EXPECT_EQ(head->currentOwner.load(), box);
  EXPECT_TRUE(waitMutexUnlocked());
}

TEST_F(ResourceTest, EmptyOwnerHandlesChangeNothing) {
  OwnerPtr box = strong("box");
  head->switchOwner(box, "", 0);

  auto e = errorOf([&] { acquire(OwnerPtr()); });
  ASSERT_TRUE(e);
  EXPECT_EQ(e->getModule(), "ZUResource");
  EXPECT_EQ(e->getMethod(), "waitFor");
  e = errorOf([&] { head->switchOwner(OwnerPtr(), "", 0); });
  ASSERT_TRUE(e);
  EXPECT_EQ(e->getModule(), "ZUResource");
  EXPECT_EQ(e->getMethod(), "switchOwner");
  head->release(OwnerPtr());

  EXPECT_EQ(head->currentOwner.load(), box);
  EXPECT_FALSE(box->resourceFreed);
  EXPECT_TRUE(waitMutexUnlocked());
}

// --- Release -----------------------------------------------------------------------

TEST_F(ResourceTest, HandDownIsHandedBackWithoutFreeResourceThenFreed) {
  OwnerPtr parent = strong("box");
  OwnerPtr child = strong("box/arm");
  ASSERT_TRUE(acquire(parent).empty());
  ASSERT_TRUE(acquire(child).empty());
  EXPECT_EQ(head->currentOwner.load(), child);

  head->release(child);
  EXPECT_EQ(head->currentOwner.load(), parent);
  EXPECT_FALSE(parent->resourceFreed);
  EXPECT_FALSE(child->resourceFreed);

  head->release(parent);
  EXPECT_TRUE(head->isResourceFree());
  EXPECT_TRUE(parent->resourceFreed);
  EXPECT_FALSE(child->resourceFreed);
}

TEST_F(ResourceTest, ParentOwnerRecordOutlivesTheHandBackWhileTheParentLives) {
  OwnerPtr parent = strong("box");
  OwnerPtr child = strong("box/arm");
  ASSERT_TRUE(acquire(parent).empty());
  ASSERT_TRUE(acquire(child).empty());
  head->release(child);
  head->release(parent);
  ASSERT_TRUE(head->isResourceFree());

  // An ordinary acquisition, yet the release goes to the recorded owner.
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

TEST_F(ResourceTest, ReleaseByANonHolderTellsOnlyTheReleaser) {
  OwnerPtr box = strong("box");
  OwnerPtr other = strong("other");
  ASSERT_TRUE(acquire(box).empty());
  head->release(other);
  EXPECT_EQ(head->currentOwner.load(), box);
  EXPECT_FALSE(box->resourceFreed);
  EXPECT_TRUE(other->resourceFreed);
}

TEST_F(ResourceTest, SwitchOwnerReplacesAHolderInConflictAndTellsNobody) {
  OwnerPtr first = strong("first");
  OwnerPtr waiter = strong("waiter");
  ASSERT_TRUE(acquire(first).empty());
  std::atomic<bool> waited(false);
  auto wait = std::async(std::launch::async, [&] {
    Names result = head->waitFor(waiter, "", 5, Names());
    waited = true;
    return result;
  });
  ASSERT_TRUE(waitUntil([&] { return first->copyWaiters().size() == 1; }));

  OwnerPtr second = strong("second");
  head->switchOwner(second, "", 0);
  EXPECT_EQ(head->currentOwner.load(), second);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // over one poll
  EXPECT_FALSE(waited) << "the waiter was told";
  EXPECT_FALSE(first->resourceFreed);
  EXPECT_FALSE(second->resourceFreed);

  // The waiter moves on to the new holder once the old one lets go.
  head->release(first);
  ASSERT_TRUE(waitUntil([&] { return second->copyWaiters().size() == 1; }));
  head->release(second);
  EXPECT_TRUE(wait.get().empty());
  EXPECT_EQ(head->currentOwner.load(), waiter);
}

}  // namespace
