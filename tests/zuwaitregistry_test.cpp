#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zuresourcelist.h>
#include <zuresource/zuwaitregistry.h>

#include "support/asyncrun.h"
#include "support/resourcehelpers.h"

using namespace ZU;
using zutest::errorOf;
using zutest::makeOwner;
using zutest::waitUntil;

namespace {

using Names = std::vector<std::string>;

bool recorded(std::size_t waits) { return ZUWaitRegistry::snapshot().size() == waits; }

Names texts(const std::vector<ZUWaitCycle>& cycles) {
  Names texts;
  for (const ZUWaitCycle& cycle : cycles) texts.push_back(cycle.toString());
  return texts;
}

class ZUWaitRegistryTest : public ::testing::Test {
 protected:
  // Every wait of a test has ended when it ends: nothing may stay recorded.
  void TearDown() override {
    EXPECT_TRUE(waitUntil([] { return recorded(0); }, 2000));
  }

  // Owner i, named owners[i], takes resource i, named R<i+1>.
  void takeResources(const Names& owners) {
    for (const std::string& name : owners) {
      owners_.push_back(makeOwner(name, name));
      resources_.push_back(
          boost::make_shared<ZUResource>("R" + std::to_string(resources_.size() + 1), nullptr));
      ASSERT_TRUE(resources_.back()->waitFor(owners_.back(), "", -1, {}).empty());
    }
  }
  // `owner` waits for `resource` in a thread, and fails at its one-second limit.
  void startFailingWait(const boost::shared_ptr<ZUResource>& resource,
                        const boost::shared_ptr<ZUOwner>& owner) {
    threads_.emplace_back(new zutest::GuardedThread(
        [resource, owner] { EXPECT_TRUE(errorOf([&] { resource->waitFor(owner, "", 1, {}); })); }));
  }

  std::vector<boost::shared_ptr<ZUOwner> > owners_;
  std::vector<boost::shared_ptr<ZUResource> > resources_;
  std::vector<std::unique_ptr<zutest::GuardedThread> > threads_;  // last: joined first
};

TEST_F(ZUWaitRegistryTest, TwoGroupsInOppositeOrderMakeATwoOwnerCycle) {
  // Each owner has taken the first member of its group, as two walks side by side would.
  takeResources({"a", "b"});
  startFailingWait(zutest::makeGroup("Forward", {resources_[0], resources_[1]}), owners_[0]);
  startFailingWait(zutest::makeGroup("Backward", {resources_[1], resources_[0]}), owners_[1]);
  ASSERT_TRUE(waitUntil([] { return !ZUWaitRegistry::cycles().empty(); }));
  EXPECT_EQ(Names{"deadlock: a -[R2]-> b -[R1]-> a"}, texts(ZUWaitRegistry::cycles()));
}

TEST(ZUWaitRegistryGraph, FindsEachElementaryCycleOnce) {
  auto cyclesOf = [](const std::vector<Names>& edges) {
    std::vector<ZUWait> waits(edges.size());
    for (std::size_t i = 0; i < edges.size(); ++i)
      waits[i].waiter = edges[i][0], waits[i].holder = edges[i][1], waits[i].resource = edges[i][2];
    return texts(ZUWaitRegistry::findCycles(waits));
  };
  // Two cycles through one owner, and a waiter that only leads into one.
  EXPECT_EQ((Names{"deadlock: a -[R1]-> b -[R2]-> a", "deadlock: a -[R3]-> c -[R4]-> a"}),
            cyclesOf({{"d", "a", "R0"},
                      {"b", "a", "R2"},
                      {"a", "b", "R1"},
                      {"a", "c", "R3"},
                      {"c", "a", "R4"}}));
  // Two waits between the same owners, for two resources: two cycles.
  EXPECT_EQ((Names{"deadlock: a -[R1]-> b -[R3]-> a", "deadlock: a -[R2]-> b -[R3]-> a"}),
            cyclesOf({{"a", "b", "R1"}, {"a", "b", "R2"}, {"b", "a", "R3"}}));
  EXPECT_TRUE(cyclesOf({{"a", "c", "R1"}, {"b", "c", "R1"}, {"c", "d", "R2"}}).empty());
}

TEST_F(ZUWaitRegistryTest, ConcurrentWaitsAndReadersKeepTheRecordWhole) {
  std::atomic<bool> reading(true), sawACycle(false);
  zutest::GuardedThread reader([&] {
    while (reading) {
      for (const ZUWait& wait : ZUWaitRegistry::snapshot()) wait.toValue();
      if (!ZUWaitRegistry::cycles().empty()) sawACycle = true;
    }
  });
  // One holder per resource: waits that shared a holder would share its release flag.
  takeResources({"h0", "h1", "h2", "h3", "h4", "h5", "h6", "h7"});
  std::vector<std::unique_ptr<zutest::WaitForRun> > waits;
  for (std::size_t i = 0; i < resources_.size(); ++i)
    waits.emplace_back(
        new zutest::WaitForRun(resources_[i], makeOwner("w" + std::to_string(i), "W"), -1));
  EXPECT_TRUE(waitUntil([&] { return recorded(waits.size()); }));
  for (std::size_t i = 0; i < resources_.size(); ++i) resources_[i]->release(owners_[i]);
  for (auto& wait : waits) EXPECT_TRUE(zutest::waitReturned(wait->wait()));
  reading = false;
  EXPECT_TRUE(reader.joinFor(5000));
  EXPECT_FALSE(sawACycle);
}

}  // namespace
