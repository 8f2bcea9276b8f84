#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zuresourcelist.h>
#include <zuresource/zuwaitregistry.h>

#include "support/conflictrun.h"
#include "support/guardedthread.h"
#include "support/resourcehelpers.h"

using namespace ZU;
using zutest::ConflictRun;
using zutest::makeGroup;
using zutest::makeOwner;
using zutest::waitFailed;
using zutest::waitUntil;

namespace {

bool registryHolds(std::size_t waits) { return ZUWaitRegistry::snapshot().size() == waits; }

// "waiter>holder@resource" for each edge, in order.
std::vector<std::string> edgesOf(const ZUWaitCycle& cycle) {
  std::vector<std::string> edges;
  for (const ZUWait& edge : cycle.edges)
    edges.push_back(edge.waiter + ">" + edge.holder + "@" + edge.resource);
  return edges;
}

ZUWait edge(const std::string& waiter, const std::string& holder, const std::string& resource) {
  ZUWait wait;
  wait.waiter = waiter;
  wait.holder = holder;
  wait.resource = resource;
  return wait;
}

using Thread = std::unique_ptr<zutest::GuardedThread>;

// `owner` acquires `resource` in a thread of its own and expects it to fail.
Thread acquireExpectingError(const boost::shared_ptr<ZUResource>& resource,
                             const boost::shared_ptr<ZUOwner>& owner, int timeout) {
  return Thread(new zutest::GuardedThread([resource, owner, timeout] {
    EXPECT_TRUE(zutest::errorOf([&] { resource->waitFor(owner, "", timeout, {}); }));
  }));
}

class ZUWaitRegistryTest : public ::testing::Test {
 protected:
  // Every wait of a test has ended when it ends: nothing may stay recorded.
  void TearDown() override {
    EXPECT_TRUE(waitUntil([] { return registryHolds(0); }, 2000));
  }

  boost::shared_ptr<ZUOwner> holder = makeOwner("holder", "Holder");
  boost::shared_ptr<ZUOwner> waiter = makeOwner("waiter", "Waiter");
};

// --- One wait: recorded from its start to its end, whichever way it ends ------

TEST_F(ZUWaitRegistryTest, RecordsWhoWaitsOnWhomForWhat) {
  ConflictRun run(*holder, "Arm", waiter, -1);
  ASSERT_TRUE(waitUntil([] { return registryHolds(1); }));

  const ZUWait wait = ZUWaitRegistry::snapshot().front();
  EXPECT_EQ("waiter", wait.waiter);
  EXPECT_EQ("Waiter", wait.waiterModule);
  EXPECT_EQ("holder", wait.holder);
  EXPECT_EQ("Holder", wait.holderModule);
  EXPECT_EQ("Arm", wait.resource);
  EXPECT_EQ(waiter, wait.waiterOwner.lock());
  EXPECT_EQ(holder, wait.holderOwner.lock());
  EXPECT_GE(wait.ageMs(), 0);
  EXPECT_EQ(0u, wait.toString().find("waiter (Waiter) waits on holder (Holder) for Arm, "));

  holder->freeResource();
  EXPECT_FALSE(run.wait().result);
  EXPECT_TRUE(registryHolds(0));
}

TEST_F(ZUWaitRegistryTest, EntryEndsWhenTheRequesterIsStopped) {
  ConflictRun run(*holder, "Arm", waiter, -1);
  ASSERT_TRUE(waitUntil([] { return registryHolds(1); }));
  waiter->freeResource();
  EXPECT_TRUE(waitFailed(run.wait(), "box stop while waiting"));
  EXPECT_TRUE(registryHolds(0));
}

TEST_F(ZUWaitRegistryTest, EntryEndsWhenTheTimeLimitPasses) {
  ConflictRun run(*holder, "Arm", waiter, 0);
  EXPECT_TRUE(waitFailed(run.wait(), "resource wait has timeouted on Arm"));
  EXPECT_TRUE(registryHolds(0));
}

TEST_F(ZUWaitRegistryTest, EntryEndsWhenTheBrokerLookupFails) {
  // A broker that knows no module "Holder": the notification's lookup throws.
  auto broker = boost::make_shared<ZUBroker>();
  holder->setParentBroker(broker);
  EXPECT_TRUE(zutest::errorOf([&] { holder->conflict("Arm", waiter, -1); }));
  EXPECT_TRUE(registryHolds(0));
}

TEST_F(ZUWaitRegistryTest, EntryEndsWhenTheHolderIsDestroyedAndKeepsItNotAlive) {
  ConflictRun run(*holder, "Arm", waiter, -1);
  ASSERT_TRUE(waitUntil([] { return registryHolds(1); }));
  boost::weak_ptr<ZUOwner> watched = holder;
  holder.reset();  // the recorded wait holds the holder weakly: this destroys it
  EXPECT_TRUE(watched.expired());
  EXPECT_FALSE(run.wait().result);
  EXPECT_TRUE(registryHolds(0));
}

TEST_F(ZUWaitRegistryTest, NothingIsRecordedWithoutAWait) {
  auto child = makeOwner("holder/child", "Child");
  EXPECT_TRUE(holder->conflict("Arm", child, -1));  // handed down at once
  EXPECT_TRUE(zutest::errorOf([&] { holder->conflict("Arm", nullptr, -1); }));
  EXPECT_TRUE(registryHolds(0));
}

TEST_F(ZUWaitRegistryTest, AcquisitionOfABusyResourceIsRecordedUnderItsName) {
  auto arm = boost::make_shared<ZUResource>("Arm", nullptr);
  ASSERT_TRUE(arm->waitFor(holder, "", -1, {}).empty());
  zutest::GuardedThread acquiring([&] { EXPECT_TRUE(arm->waitFor(waiter, "", -1, {}).empty()); });
  ASSERT_TRUE(waitUntil([] { return registryHolds(1); }));
  EXPECT_EQ("Arm", ZUWaitRegistry::snapshot().front().resource);
  arm->release(holder);
  ASSERT_TRUE(acquiring.joinFor(5000));
  EXPECT_TRUE(registryHolds(0));
}

// --- Cycles ------------------------------------------------------------------------

TEST_F(ZUWaitRegistryTest, TwoGroupsInOppositeOrderMakeATwoOwnerCycle) {
  auto r1 = boost::make_shared<ZUResource>("R1", nullptr);
  auto r2 = boost::make_shared<ZUResource>("R2", nullptr);
  auto a = makeOwner("a", "A");
  auto b = makeOwner("b", "B");
  // Each owner has taken the first member of its group, as two walks that
  // ran side by side would.
  ASSERT_TRUE(r1->waitFor(a, "", -1, {}).empty());
  ASSERT_TRUE(r2->waitFor(b, "", -1, {}).empty());
  boost::shared_ptr<ZUResource> forward = makeGroup("G1", {r1, r2});
  boost::shared_ptr<ZUResource> backward = makeGroup("G2", {r2, r1});

  Thread first = acquireExpectingError(forward, a, 1);
  Thread second = acquireExpectingError(backward, b, 1);
  ASSERT_TRUE(waitUntil([] { return !ZUWaitRegistry::cycles().empty(); }));

  const std::vector<ZUWaitCycle> cycles = ZUWaitRegistry::cycles();
  ASSERT_EQ(1u, cycles.size());
  EXPECT_EQ((std::vector<std::string>{"a>b@R2", "b>a@R1"}), edgesOf(cycles[0]));
  EXPECT_EQ("deadlock: a -[R2]-> b -[R1]-> a", cycles[0].toString());

  // Only the time limits end it; each group then gives everything back.
  ASSERT_TRUE(first->joinFor(5000));
  ASSERT_TRUE(second->joinFor(5000));
  EXPECT_TRUE(r1->isResourceFree());
  EXPECT_TRUE(r2->isResourceFree());
}

TEST_F(ZUWaitRegistryTest, ThreeOwnersWaitingInARingMakeAThreeOwnerCycle) {
  std::vector<boost::shared_ptr<ZUResource> > r;
  std::vector<boost::shared_ptr<ZUOwner> > o;
  for (const char* name : {"a", "b", "c"}) o.push_back(makeOwner(name, name));
  for (int i = 0; i < 3; ++i) {
    r.push_back(boost::make_shared<ZUResource>("R" + std::to_string(i + 1), nullptr));
    ASSERT_TRUE(r[i]->waitFor(o[i], "", -1, {}).empty());
  }
  std::vector<Thread> waits;
  for (int i = 0; i < 3; ++i) waits.push_back(acquireExpectingError(r[(i + 1) % 3], o[i], 1));
  ASSERT_TRUE(waitUntil([] { return !ZUWaitRegistry::cycles().empty(); }));

  const std::vector<ZUWaitCycle> cycles = ZUWaitRegistry::cycles();
  ASSERT_EQ(1u, cycles.size());
  EXPECT_EQ((std::vector<std::string>{"a>b@R2", "b>c@R3", "c>a@R1"}), edgesOf(cycles[0]));
  for (Thread& thread : waits) EXPECT_TRUE(thread->joinFor(5000));
}

TEST_F(ZUWaitRegistryTest, AChainWithoutACycleIsNoDeadlock) {
  auto r2 = boost::make_shared<ZUResource>("R2", nullptr);
  auto r3 = boost::make_shared<ZUResource>("R3", nullptr);
  auto a = makeOwner("a", "A");
  auto b = makeOwner("b", "B");
  auto c = makeOwner("c", "C");
  ASSERT_TRUE(r2->waitFor(b, "", -1, {}).empty());
  ASSERT_TRUE(r3->waitFor(c, "", -1, {}).empty());
  Thread aWaits = acquireExpectingError(r2, a, 1);  // a -> b -> c, and c waits on nobody
  Thread bWaits = acquireExpectingError(r3, b, 1);
  ASSERT_TRUE(waitUntil([] { return registryHolds(2); }));
  EXPECT_TRUE(ZUWaitRegistry::cycles().empty());
  EXPECT_TRUE(aWaits->joinFor(5000));
  EXPECT_TRUE(bWaits->joinFor(5000));
}

TEST(ZUWaitRegistryGraph, FindsEachElementaryCycleOnceAndNothingElse) {
  using Edges = std::vector<std::string>;
  auto cyclesOf = [](const std::vector<ZUWait>& waits) {
    std::vector<Edges> found;
    for (const ZUWaitCycle& cycle : ZUWaitRegistry::findCycles(waits))
      found.push_back(edgesOf(cycle));
    return found;
  };
  EXPECT_TRUE(cyclesOf({}).empty());
  // An owner waiting on an owner of its own name.
  EXPECT_EQ((std::vector<Edges>{{"a>a@R"}}), cyclesOf({edge("a", "a", "R")}));
  // Two cycles through one owner, and a waiter that only leads into one.
  EXPECT_EQ((std::vector<Edges>{{"a>b@R1", "b>a@R2"}, {"a>c@R3", "c>a@R4"}}),
            cyclesOf({edge("d", "a", "R0"), edge("b", "a", "R2"), edge("a", "b", "R1"),
                      edge("a", "c", "R3"), edge("c", "a", "R4")}));
  // Two waits between the same owners for two resources: two cycles.
  EXPECT_EQ((std::vector<Edges>{{"a>b@R1", "b>a@R3"}, {"a>b@R2", "b>a@R3"}}),
            cyclesOf({edge("a", "b", "R1"), edge("a", "b", "R2"), edge("b", "a", "R3")}));
  // A tree of waits converging on one holder.
  EXPECT_TRUE(cyclesOf({edge("a", "c", "R1"), edge("b", "c", "R1"), edge("c", "d", "R2")})
                  .empty());
}

// --- Concurrency ---------------------------------------------------------------------

TEST_F(ZUWaitRegistryTest, ConcurrentWaitsAndReadersKeepTheRecordWhole) {
  const int kWaiters = 8;
  std::vector<boost::shared_ptr<ZUResource> > resources;
  std::vector<Thread> waits;
  for (int i = 0; i < kWaiters; ++i) {
    resources.push_back(boost::make_shared<ZUResource>("R" + std::to_string(i), nullptr));
    ASSERT_TRUE(resources[i]->waitFor(holder, "", -1, {}).empty());
  }
  std::atomic<bool> reading(true);
  std::atomic<bool> sawACycle(false);
  zutest::GuardedThread reader([&] {
    while (reading) {
      for (const ZUWait& wait : ZUWaitRegistry::snapshot()) wait.toValue();
      if (!ZUWaitRegistry::cycles().empty()) sawACycle = true;
    }
  });
  for (int i = 0; i < kWaiters; ++i) {
    auto owner = makeOwner("w" + std::to_string(i), "W");
    boost::shared_ptr<ZUResource> resource = resources[i];
    waits.emplace_back(new zutest::GuardedThread(
        [resource, owner] { EXPECT_TRUE(resource->waitFor(owner, "", -1, {}).empty()); }));
  }
  ASSERT_TRUE(waitUntil([&] { return registryHolds(kWaiters); }));
  for (const auto& resource : resources) resource->release(holder);
  for (Thread& wait : waits) EXPECT_TRUE(wait->joinFor(5000));
  reading = false;
  EXPECT_TRUE(reader.joinFor(5000));
  EXPECT_FALSE(sawACycle);
}

}  // namespace
