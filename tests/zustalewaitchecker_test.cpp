#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zucontract.h>
#include <zuresource/zustalewaitchecker.h>
#include <zuresource/zuwaitregistry.h>

#include "support/asyncrun.h"
#include "support/resourcehelpers.h"

using namespace ZU;
using zutest::makeGroup;
using zutest::makeOwner;
using zutest::waitUntil;

namespace {

using Roots = std::vector<boost::shared_ptr<ZUResource> >;

class ZUStaleWaitCheckerTest : public ::testing::Test {
 protected:
  // Checks until something is reported or `ms` have passed; returns the last report.
  std::vector<ZUStaleWait> checkFor(const Roots& roots, int ms) {
    std::vector<ZUStaleWait> stale;
    waitUntil([&] { return !(stale = checker.check(roots)).empty(); }, ms);
    return stale;
  }
  bool oneWaitRecorded() {
    return waitUntil([] { return ZUWaitRegistry::snapshot().size() == 1; });
  }

  ZUStaleWaitChecker checker;
  boost::shared_ptr<ZUResource> arm = boost::make_shared<ZUResource>("Arm", nullptr);
  Roots body{makeGroup("Body", {boost::make_shared<ZUResource>("Leg", nullptr), arm})};
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
  zutest::ConflictRun run(*seen, "Arm", waiter, -1);
  ASSERT_TRUE(oneWaitRecorded());

  std::vector<ZUStaleWait> stale = checkFor(body, 3000);
  ASSERT_EQ(1u, stale.size());
  EXPECT_GT(stale[0].ageMs, ZUStaleWaitChecker::kStaleAfterMs);
  EXPECT_TRUE(stale[0].firstReport);
  EXPECT_EQ(0u, stale[0].toString().find("stale wait: w waits on h for Arm, which it has not"));
  stale = checker.check(body);
  ASSERT_EQ(1u, stale.size());
  EXPECT_FALSE(stale[0].firstReport);  // still stale, already reported
  EXPECT_TRUE(checker.check({boost::make_shared<ZUResource>("Head", nullptr)}).empty());

  waiter->freeResource();  // nothing else would ever end this wait
  EXPECT_TRUE(zutest::waitFailed(run.wait(), ZU::contract::kStopWhileWaiting));
  EXPECT_TRUE(checker.check(body).empty());
}

TEST_F(ZUStaleWaitCheckerTest, OrdinaryWaitIsNotReported) {
  ASSERT_TRUE(arm->waitFor(holder, "", -1, {}).empty());
  zutest::WaitForRun acquiring(arm, waiter, -1);
  ASSERT_TRUE(oneWaitRecorded());
  EXPECT_TRUE(checkFor(body, 500).empty());  // the holder holds: a wait, not a stale one
  arm->release(holder);                      // the waiter takes over within one polling period
  EXPECT_TRUE(checkFor(body, 500).empty());
  EXPECT_TRUE(zutest::waitReturned(acquiring.wait()));
}

// The same race on a state: the waiter reads "not activated", the state is activated
// (freeing its own owner), then the waiter waits in that owner's conflict().
TEST_F(ZUStaleWaitCheckerTest, WaitForAnActivationThatAlreadyHappenedIsReported) {
  auto standing = boost::make_shared<ZUResourceState>("Standing", nullptr);
  Roots roots{makeGroup("Conditions", {standing})};
  zutest::WaitForRun activation(standing, holder, -1);
  ASSERT_TRUE(oneWaitRecorded());
  EXPECT_TRUE(checkFor(roots, 500).empty());  // waiting for activation is no stale wait
  standing->setState(true);
  EXPECT_TRUE(zutest::waitReturned(activation.wait()));

  zutest::ConflictRun run(*standing->stateOwner, "Standing", waiter, -1);
  std::vector<ZUStaleWait> stale = checkFor(roots, 3000);
  ASSERT_EQ(1u, stale.size());
  EXPECT_EQ(0u, stale[0].toString().find("stale wait: w waits on Standing for Standing,"));
  waiter->freeResource();
  EXPECT_TRUE(zutest::waitFailed(run.wait(), ZU::contract::kStopWhileWaiting));
}

}  // namespace
