#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zuresourcelist.h>
#include <zuresource/zuwaitregistry.h>

#include "support/conflictrun.h"
#include "support/resourcehelpers.h"

using namespace ZU;
using zutest::makeOwner;
using zutest::waitUntil;

namespace {

using Thread = std::unique_ptr<zutest::GuardedThread>;
using Names = std::vector<std::string>;

bool recorded(std::size_t waits) { return ZUWaitRegistry::snapshot().size() == waits; }

// "waiter>holder@resource" for each edge, in cycle order.
Names edgesOf(const ZUWaitCycle& cycle) {
  Names edges;
  for (const ZUWait& edge : cycle.edges)
    edges.push_back(edge.waiter + ">" + edge.holder + "@" + edge.resource);
  return edges;
}

class ZUWaitRegistryTest : public ::testing::Test {
 protected:
  // Every wait of a test has ended when it ends: nothing may stay recorded.
  void TearDown() override { EXPECT_TRUE(waitUntil([] { return recorded(0); }, 2000)); }

  // Owner i holds resource i (named R<i+1>); the first `waits` owners then
  // wait, each in a thread, for the next resource (the last owner for the
  // first), with a time limit of one second.
  void startRing(const Names& owners, std::size_t waits) {
    for (const std::string& name : owners) {
      owners_.push_back(makeOwner(name, name));
      const std::string resource = "R" + std::to_string(resources_.size() + 1);
      resources_.push_back(boost::make_shared<ZUResource>(resource, nullptr));
      ASSERT_TRUE(resources_.back()->waitFor(owners_.back(), "", -1, {}).empty());
    }
    for (std::size_t i = 0; i < waits; ++i)
      startFailingWait(resources_[(i + 1) % owners.size()], owners_[i]);
    ASSERT_TRUE(waitUntil([waits] { return recorded(waits); }));
  }
  void startFailingWait(const boost::shared_ptr<ZUResource>& resource,
                        const boost::shared_ptr<ZUOwner>& owner) {
    threads_.emplace_back(new zutest::GuardedThread([resource, owner] {
      EXPECT_TRUE(zutest::errorOf([&] { resource->waitFor(owner, "", 1, {}); }));
    }));
  }

  std::vector<boost::shared_ptr<ZUOwner> > owners_;
  std::vector<boost::shared_ptr<ZUResource> > resources_;
  std::vector<Thread> threads_;  // declared last: joined first
};

// --- One wait: recorded from its start to its end, whichever way it ends ------

TEST_F(ZUWaitRegistryTest, EntryLastsExactlyAsLongAsTheWaitOnEveryWayOut) {
  struct WayOut {
    const char* name;
    int timeout;
    std::function<void(boost::shared_ptr<ZUOwner>& holder, ZUOwner& waiter)> end;
  };
  const WayOut ways[] = {
      {"holder released", -1, [](auto& holder, auto&) { holder->freeResource(); }},
      {"waiter stopped", -1, [](auto&, auto& waiter) { waiter.freeResource(); }},
      {"time limit", 0, [](auto&, auto&) {}},
      {"holder destroyed", -1, [](auto& holder, auto&) { holder.reset(); }},
  };
  for (const WayOut& way : ways) {
    SCOPED_TRACE(way.name);
    auto holder = makeOwner("holder", "Holder");
    auto waiter = makeOwner("waiter", "Waiter");
    zutest::ConflictRun run(*holder, "Arm", waiter, way.timeout);
    ASSERT_TRUE(waitUntil([] { return recorded(1); }));
    const ZUWait wait = ZUWaitRegistry::snapshot().front();
    EXPECT_EQ(0u, wait.toString().find("waiter (Waiter) waits on holder (Holder) for Arm, "));
    EXPECT_EQ(holder, wait.holderOwner.lock());
    EXPECT_EQ(waiter, wait.waiterOwner.lock());

    boost::weak_ptr<ZUOwner> watched = holder;
    way.end(holder, *waiter);
    run.wait();
    EXPECT_TRUE(recorded(0));
    EXPECT_EQ(!holder, watched.expired());  // the record kept no holder alive
  }
}

TEST_F(ZUWaitRegistryTest, NoEntryStaysAfterAnErrorOrWithoutAWait) {
  auto holder = makeOwner("holder", "Holder");
  auto waiter = makeOwner("waiter", "Waiter");
  auto broker = boost::make_shared<ZUBroker>();  // knows no module "Holder"
  holder->setParentBroker(broker);
  EXPECT_TRUE(zutest::errorOf([&] { holder->conflict("Arm", waiter, -1); }));
  EXPECT_TRUE(zutest::errorOf([&] { holder->conflict("Arm", nullptr, -1); }));
  EXPECT_TRUE(holder->conflict("Arm", makeOwner("holder/child", "Child"), -1));
  EXPECT_TRUE(recorded(0));
}

// --- Cycles ------------------------------------------------------------------------

TEST_F(ZUWaitRegistryTest, TwoGroupsInOppositeOrderMakeATwoOwnerCycle) {
  // Each owner has taken the first member of its group, as two walks side by
  // side would; the groups list the same resources in opposite orders.
  startRing({"a", "b"}, 0);
  startFailingWait(zutest::makeGroup("Forward", {resources_[0], resources_[1]}), owners_[0]);
  startFailingWait(zutest::makeGroup("Backward", {resources_[1], resources_[0]}), owners_[1]);
  ASSERT_TRUE(waitUntil([] { return !ZUWaitRegistry::cycles().empty(); }));

  const std::vector<ZUWaitCycle> cycles = ZUWaitRegistry::cycles();
  ASSERT_EQ(1u, cycles.size());
  EXPECT_EQ((Names{"a>b@R2", "b>a@R1"}), edgesOf(cycles[0]));
  EXPECT_EQ("deadlock: a -[R2]-> b -[R1]-> a", cycles[0].toString());
  for (Thread& thread : threads_) EXPECT_TRUE(thread->joinFor(5000));
  EXPECT_TRUE(resources_[0]->isResourceFree());  // each failed walk gave all back
  EXPECT_TRUE(resources_[1]->isResourceFree());
}

TEST_F(ZUWaitRegistryTest, ThreeOwnersWaitingInARingMakeAThreeOwnerCycle) {
  startRing({"b", "c", "a"}, 3);
  const std::vector<ZUWaitCycle> cycles = ZUWaitRegistry::cycles();
  ASSERT_EQ(1u, cycles.size());
  EXPECT_EQ((Names{"a>b@R1", "b>c@R2", "c>a@R3"}), edgesOf(cycles[0]));
}

TEST_F(ZUWaitRegistryTest, AChainWithoutACycleIsNoDeadlock) {
  startRing({"a", "b", "c"}, 2);  // c waits on nobody
  EXPECT_TRUE(ZUWaitRegistry::cycles().empty());
}

TEST(ZUWaitRegistryGraph, FindsEachElementaryCycleOnce) {
  auto cyclesOf = [](const std::vector<Names>& edges) {
    std::vector<ZUWait> waits;
    for (const Names& e : edges) {
      waits.emplace_back();
      waits.back().waiter = e[0], waits.back().holder = e[1], waits.back().resource = e[2];
    }
    std::vector<Names> found;
    for (const ZUWaitCycle& cycle : ZUWaitRegistry::findCycles(waits))
      found.push_back(edgesOf(cycle));
    return found;
  };
  EXPECT_EQ((std::vector<Names>{{"a>a@R"}}), cyclesOf({{"a", "a", "R"}}));
  // Two cycles through one owner, and a waiter that only leads into one.
  EXPECT_EQ((std::vector<Names>{{"a>b@R1", "b>a@R2"}, {"a>c@R3", "c>a@R4"}}),
            cyclesOf({{"d", "a", "R0"}, {"b", "a", "R2"}, {"a", "b", "R1"},
                      {"a", "c", "R3"}, {"c", "a", "R4"}}));
  // Two waits between the same owners, for two resources: two cycles.
  EXPECT_EQ((std::vector<Names>{{"a>b@R1", "b>a@R3"}, {"a>b@R2", "b>a@R3"}}),
            cyclesOf({{"a", "b", "R1"}, {"a", "b", "R2"}, {"b", "a", "R3"}}));
  EXPECT_TRUE(cyclesOf({{"a", "c", "R1"}, {"b", "c", "R1"}, {"c", "d", "R2"}}).empty());
}

// --- Concurrency ---------------------------------------------------------------------

TEST_F(ZUWaitRegistryTest, ConcurrentWaitsAndReadersKeepTheRecordWhole) {
  std::atomic<bool> reading(true);
  std::atomic<bool> sawACycle(false);
  zutest::GuardedThread reader([&] {
    while (reading) {
      for (const ZUWait& wait : ZUWaitRegistry::snapshot()) wait.toValue();
      if (!ZUWaitRegistry::cycles().empty()) sawACycle = true;
    }
  });
  // One holder per resource: waits that share a holder share its release
  // flag, and a retry after another resource's release could clear it.
  const int kWaiters = 8;
  Names holders;
  for (int i = 0; i < kWaiters; ++i) holders.push_back("h" + std::to_string(i));
  startRing(holders, 0);
  for (int i = 0; i < kWaiters; ++i) {
    boost::shared_ptr<ZUResource> resource = resources_[i];
    auto owner = makeOwner("w" + std::to_string(i), "W");
    threads_.emplace_back(new zutest::GuardedThread(
        [resource, owner] { EXPECT_TRUE(resource->waitFor(owner, "", -1, {}).empty()); }));
  }
  ASSERT_TRUE(waitUntil([&] { return recorded(kWaiters); }));
  for (int i = 0; i < kWaiters; ++i) resources_[i]->release(owners_[i]);
  for (Thread& thread : threads_) EXPECT_TRUE(thread->joinFor(5000));
  reading = false;
  EXPECT_TRUE(reader.joinFor(5000));
  EXPECT_FALSE(sawACycle);
}

}  // namespace
