// Stale waits on a plain resource; a state's stale wait is an observer scenario.
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

TEST(ZUStaleWaitCheckerTest, OrdinaryWaitIsNotReportedAWaitOnAHolderThatAlreadyLetGoIs) {
  ZUStaleWaitChecker checker;
  auto arm = boost::make_shared<ZUResource>("Arm", nullptr);
  const std::vector<boost::shared_ptr<ZUResource>> body{
      makeGroup("Body", {boost::make_shared<ZUResource>("Leg", nullptr), arm})};
  // Checks until something is reported or `ms` have passed; returns the last report.
  auto checkFor = [&](int ms) {
    std::vector<ZUStaleWait> stale;
    waitUntil([&] { return !(stale = checker.check(body)).empty(); }, ms);
    return stale;
  };
  boost::shared_ptr<ZUOwner> holder = makeOwner("h", "H"), waiter = makeOwner("w", "W");
  ASSERT_TRUE(arm->waitFor(holder, "", -1, {}).empty());
  {
    zutest::WaitForRun acquiring(arm, waiter, -1);
    ASSERT_TRUE(waitUntil([] { return ZUWaitRegistry::snapshot().size() == 1; }));
    EXPECT_TRUE(checkFor(500).empty());  // the holder holds: a wait, not a stale one
    // Once the holder lets go, the waiter takes over within a polling period;
    // how long before the check would flag it is not asserted (a loaded
    // machine may wake the waiter later than that).
    arm->release(holder);
    EXPECT_TRUE(zutest::waitReturned(acquiring.wait()));
  }

  // The stale-wait race, replayed step by step:
  //   requester: reads Arm's holder (w)
  //   w:         releases Arm (Arm is free, w's release flag is set)
  //   requester: enters w's conflict(), which clears that flag and waits for
  //              a release that already happened
  boost::shared_ptr<ZUOwner> seen = arm->currentOwner.load();
  arm->release(waiter);
  auto requester = makeOwner("q", "Q");
  zutest::ConflictRun run(*seen, "Arm", requester, -1);

  std::vector<ZUStaleWait> stale = checkFor(3000);
  ASSERT_EQ(1u, stale.size());
  EXPECT_GT(stale[0].ageMs, ZUStaleWaitChecker::kStaleAfterMs);
  EXPECT_TRUE(stale[0].firstReport);
  EXPECT_EQ(0u, stale[0].toString().find("stale wait: q waits on w for Arm, which it has not"));
  stale = checker.check(body);
  ASSERT_EQ(1u, stale.size());
  EXPECT_FALSE(stale[0].firstReport);  // still stale, already reported
  EXPECT_TRUE(checker.check({boost::make_shared<ZUResource>("Head", nullptr)}).empty());

  requester->freeResource();  // nothing else would ever end this wait
  EXPECT_TRUE(zutest::waitFailed(run.wait(), ZU::contract::kStopWhileWaiting));
  EXPECT_TRUE(checker.check(body).empty());
}

}  // namespace
