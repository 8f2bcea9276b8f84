#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zuresourcelist.h>
#include <zuresource/zuresourcestate.h>
#include <zuresource/zustalewaitchecker.h>
#include <zuresource/zuwaitregistry.h>

#include "support/conflictrun.h"
#include "support/resourcehelpers.h"
#include "support/stopwatch.h"

using namespace ZU;
using zutest::ConflictRun;
using zutest::makeGroup;
using zutest::makeOwner;
using zutest::waitUntil;

namespace {

using Roots = std::vector<boost::shared_ptr<ZUResource> >;

class ZUStaleWaitCheckerTest : public ::testing::Test {
 protected:
  // Checks every 50 ms, as a simulator would, until something is reported or
  // `ms` have passed; returns the last report.
  std::vector<ZUStaleWait> checkFor(const Roots& roots, int ms) {
    std::vector<ZUStaleWait> stale;
    waitUntil(
        [&] {
          stale = checker.check(roots);
          return !stale.empty();
        },
        ms);
    return stale;
  }
  bool recorded(std::size_t waits) { return ZUWaitRegistry::snapshot().size() == waits; }

  ZUStaleWaitChecker checker;
  boost::shared_ptr<ZUResource> arm = boost::make_shared<ZUResource>("Arm", nullptr);
  boost::shared_ptr<ZUResource> body =
      makeGroup("Body", {boost::make_shared<ZUResource>("Leg", nullptr), arm});
  boost::shared_ptr<ZUOwner> holder = makeOwner("h", "H");
  boost::shared_ptr<ZUOwner> waiter = makeOwner("w", "W");
};

// The stale-wait race, replayed step by step:
//   waiter: reads Arm's holder (h)
//   holder: releases Arm (Arm is free, h's release flag is set)
//   waiter: enters h's conflict(), which clears that flag and waits for a
//           release that already happened
TEST_F(ZUStaleWaitCheckerTest, WaitOnAHolderThatAlreadyLetGoIsReported) {
  ASSERT_TRUE(arm->waitFor(holder, "", -1, {}).empty());
  boost::shared_ptr<ZUOwner> seen = arm->currentOwner.load();
  arm->release(holder);
  ConflictRun run(*seen, "Arm", waiter, -1);
  ASSERT_TRUE(waitUntil([&] { return recorded(1); }));

  zutest::Stopwatch watch;
  std::vector<ZUStaleWait> stale = checkFor({body}, 3000);
  ASSERT_EQ(1u, stale.size());
  EXPECT_GE(watch.elapsedMs(), ZUStaleWaitChecker::kStaleAfterMs - 20);
  EXPECT_EQ("w", stale[0].wait.waiter);
  EXPECT_EQ("h", stale[0].wait.holder);
  EXPECT_EQ("Arm", stale[0].wait.resource);
  EXPECT_GT(stale[0].ageMs, ZUStaleWaitChecker::kStaleAfterMs);
  EXPECT_TRUE(stale[0].firstReport);
  EXPECT_EQ(0u, stale[0].toString().find("stale wait: w waits on h for Arm, which it has not"));

  stale = checker.check({body});
  ASSERT_EQ(1u, stale.size());
  EXPECT_FALSE(stale[0].firstReport);  // still stale, already reported
  EXPECT_TRUE(checker.check({boost::make_shared<ZUResource>("Head", nullptr)}).empty());

  waiter->freeResource();  // nothing else would ever end this wait
  EXPECT_TRUE(zutest::waitFailed(run.wait(), "box stop while waiting"));
  EXPECT_TRUE(checker.check({body}).empty());
}

TEST_F(ZUStaleWaitCheckerTest, OrdinaryWaitIsNotReported) {
  ASSERT_TRUE(arm->waitFor(holder, "", -1, {}).empty());
  zutest::GuardedThread acquiring([&] { EXPECT_TRUE(arm->waitFor(waiter, "", -1, {}).empty()); });
  ASSERT_TRUE(waitUntil([&] { return recorded(1); }));
  EXPECT_TRUE(checkFor({body}, 500).empty());  // the holder holds: a wait, not a stale one

  arm->release(holder);  // the waiter takes over within one polling period
  EXPECT_TRUE(checkFor({body}, 500).empty());
  ASSERT_TRUE(acquiring.joinFor(5000));
  EXPECT_TRUE(arm->isResourceOwned("W"));
}

// The same race on a state resource: the waiter reads "not activated", the
// state is activated (which frees the state's own owner), then the waiter
// enters that owner's conflict() and waits for an activation that happened.
TEST_F(ZUStaleWaitCheckerTest, WaitForAnActivationThatAlreadyHappenedIsReported) {
  auto standing = boost::make_shared<ZUResourceState>("Standing", nullptr);
  Roots roots{makeGroup("Conditions", {standing})};
  zutest::GuardedThread activation(
      [&] { EXPECT_TRUE(standing->waitFor(holder, "", -1, {}).empty()); });
  ASSERT_TRUE(waitUntil([&] { return recorded(1); }));
  EXPECT_TRUE(checkFor(roots, 500).empty());  // waiting for activation is no stale wait
  standing->setState(true);
  ASSERT_TRUE(activation.joinFor(5000));

  ConflictRun run(*standing->stateOwner, "Standing", waiter, -1);
  std::vector<ZUStaleWait> stale = checkFor(roots, 3000);
  ASSERT_EQ(1u, stale.size());
  EXPECT_EQ("Standing", stale[0].wait.holder);
  EXPECT_EQ("Standing", stale[0].wait.resource);
  waiter->freeResource();
  EXPECT_TRUE(zutest::waitFailed(run.wait(), "box stop while waiting"));
}

}  // namespace
