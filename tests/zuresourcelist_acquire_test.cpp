// Group acquisition: waitFor, switchOwner and release walk the members.
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuhost/zuos.h>
#include <zuresource/zuresourcelist.h>
#include <zuresource/zuresourcestate.h>

#include "support/guardedthread.h"
#include "support/recordingresource.h"
#include "support/resourcehelpers.h"

namespace {

using Names = std::vector<std::string>;
using zutest::errorOf;
using zutest::makeGroup;
using zutest::makeOwner;

/// A group G of three recording members R1, R2, R3 sharing one log.
class GroupAcquireTest : public ::testing::Test {
 protected:
  boost::shared_ptr<zutest::CallLog> log = boost::make_shared<zutest::CallLog>();
  boost::shared_ptr<zutest::RecordingResource> r1 = zutest::makeRecording("R1", log);
  boost::shared_ptr<zutest::RecordingResource> r2 = zutest::makeRecording("R2", log);
  boost::shared_ptr<zutest::RecordingResource> r3 = zutest::makeRecording("R3", log);
  boost::shared_ptr<ZU::ZUResourceList> g = makeGroup("G", {r1, r2, r3});
  boost::shared_ptr<ZU::ZUOwner> owner = makeOwner("o", "M");
  boost::shared_ptr<ZU::ZUOwner> other = makeOwner("x", "X");
};

TEST_F(GroupAcquireTest, EveryWalkTakesTheMembersInListOrder) {
  EXPECT_TRUE(g->waitFor(owner, "", 0, {}).empty());
  EXPECT_TRUE(g->isResourceOwned("M"));
  g->switchOwner(other, "", 0);
  EXPECT_TRUE(g->isResourceOwned("X"));
  g->release(owner);  // asks every member, also those the owner doesn't hold
  EXPECT_EQ(log->entries(),
            (Names{"R1.waitFor", "R2.waitFor", "R3.waitFor", "R1.switchOwner", "R2.switchOwner",
                   "R3.switchOwner", "R1.release", "R2.release", "R3.release"}));
  EXPECT_TRUE(g->isResourceOwned("X"));
}

TEST_F(GroupAcquireTest, NamesNotWaitedForAreJoinedAndTheRestStaysHeld) {
  r2->inner()->waitFor(other, "", 0, {});
  EXPECT_EQ(g->waitFor(owner, "", 0, {"R2"}), Names{"R2"});
  EXPECT_EQ(log->entries(), (Names{"R1.waitFor", "R2.waitFor", "R3.waitFor"}));  // no release
  EXPECT_TRUE(r1->isResourceOwned("M"));
  EXPECT_TRUE(r2->isResourceOwned("X"));
  EXPECT_TRUE(r3->isResourceOwned("M"));

  g->release(owner);
  g->release(other);
  r1->inner()->waitFor(other, "", 0, {});
  r3->inner()->waitFor(other, "", 0, {});
  EXPECT_EQ(g->waitFor(owner, "", 0, {"R3", "R1"}), (Names{"R1", "R3"}));
  EXPECT_TRUE(r2->isResourceOwned("M"));
  EXPECT_TRUE(r1->isResourceOwned("X"));
}

TEST_F(GroupAcquireTest, FailingMemberReleasesEveryMemberAndRethrowsTheVeryError) {
  r2->failWaitFor("R2 gave up");
  bool caught = false;
  try {
    g->waitFor(owner, "", 0, {});
  } catch (const ZU::ZUError& error) {
    caught = true;
    EXPECT_EQ(&error, r2->lastError()) << "a copy was thrown on";
    EXPECT_EQ(error.getDescription(), "R2 gave up");
  }
  EXPECT_TRUE(caught);
  EXPECT_EQ(log->entries(), (Names{"R1.waitFor", "R2.waitFor", "R1.release", "R2.release",
                                   "R3.release"}));
  EXPECT_TRUE(g->isResourceFree());
}

TEST_F(GroupAcquireTest, OtherErrorsPassWithoutRelease) {
  r2->onWaitFor([] { throw std::runtime_error("not a ZUError"); });
  EXPECT_THROW(g->waitFor(owner, "", 0, {}), std::runtime_error);
  EXPECT_EQ(log->entries(), (Names{"R1.waitFor", "R2.waitFor"}));
  EXPECT_TRUE(r1->isResourceOwned("M"));
}

TEST(GroupNestingTest, EveryLevelReleasesOnTheWayOut) {
  auto log = boost::make_shared<zutest::CallLog>();
  auto r3 = zutest::makeRecording("R3", log);
  r3->failWaitFor("R3 gave up");
  auto h = makeGroup("H", {zutest::makeRecording("R2", log), r3});
  auto g = makeGroup("G", {zutest::makeRecording("R1", log), h});

  auto error = errorOf([&] { g->waitFor(makeOwner("o", "M"), "", 0, {}); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->getDescription(), "R3 gave up");
  EXPECT_EQ(log->entries(), (Names{"R1.waitFor", "R2.waitFor", "R3.waitFor",  // the walk
                                   "R2.release", "R3.release",                // H's release
                                   "R1.release", "R2.release", "R3.release"}));  // G's
  EXPECT_TRUE(g->isResourceFree());
}

TEST_F(GroupAcquireTest, AbortBeforeWaitForReleasesEveryMember) {
  g->setAbortRequested(true);
  EXPECT_TRUE(g->waitFor(owner, "", 0, {}).empty());
  EXPECT_EQ(log->entries(), (Names{"R1.release", "R2.release", "R3.release"}));
  EXPECT_TRUE(g->isResourceFree());
}

TEST_F(GroupAcquireTest, AbortDuringWaitForGivesBackWhatWasTaken) {
  r2->onWaitFor([this] { g->setAbortRequested(true); });
  r3->inner()->waitFor(other, "", 0, {});
  // R3 is busy and listed, yet the result is empty: an aborted walk says nothing.
  EXPECT_TRUE(g->waitFor(owner, "", 0, {"R3"}).empty());
  EXPECT_EQ(log->entries(), (Names{"R1.waitFor", "R2.waitFor", "R1.release", "R2.release",
                                   "R3.release"}));
  EXPECT_TRUE(r1->isResourceFree());
  EXPECT_TRUE(r2->isResourceFree());
  EXPECT_TRUE(r3->isResourceOwned("X"));
}

TEST_F(GroupAcquireTest, AbortBeforeSwitchOwnerSwitchesNothing) {
  g->setAbortRequested(true);
  g->switchOwner(owner, "", 0);
  EXPECT_EQ(log->entries(), (Names{"R1.release", "R2.release", "R3.release"}));
  EXPECT_TRUE(g->isResourceFree());
}

TEST(GroupEmptyTest, AcquisitionDoesNothing) {
  auto g = makeGroup("G", {});
  auto owner = makeOwner("o", "M");
  for (bool abort : {false, true}) {
    g->setAbortRequested(abort);
    EXPECT_TRUE(g->waitFor(owner, "", 0, {"G"}).empty());
    g->switchOwner(owner, "", 0);
    g->release(owner);
  }
  EXPECT_TRUE(g->isResourceFree());
  EXPECT_FALSE(owner->resourceFreed);
}

TEST(GroupMixedTest, StateMemberIsAcquiredByItsOwnRules) {
  auto a = boost::make_shared<ZU::ZUResource>("A", nullptr);
  auto s = boost::make_shared<ZU::ZUResourceState>("S", nullptr);
  auto g = makeGroup("G", {a, s});
  auto owner = makeOwner("o", "M");

  EXPECT_EQ(g->waitFor(owner, "", 0, {"S"}), Names{"S"});  // S is off
  EXPECT_TRUE(a->isResourceOwned("M"));
  g->release(owner);  // this also stops the owner: its next wait would fail at once

  auto next = makeOwner("p", "M");
  auto error = errorOf([&] { g->waitFor(next, "", 0, {}); });  // waits one poll for S
  ASSERT_TRUE(error);
  EXPECT_EQ(error->getDescription(), "resource wait has timeouted on S");
  EXPECT_TRUE(a->isResourceFree());

  s->setState(true);
  EXPECT_TRUE(g->waitFor(next, "", 0, {}).empty());
  EXPECT_EQ(zutest::holderNames(*s), Names{"p"});
  g->release(next);
  EXPECT_TRUE(zutest::holderNames(*s).empty());
  EXPECT_TRUE(g->isResourceFree());
}

// Two owners take the overlapping groups G1 {R1, R2} and G2 {R2, R3} over and
// over, each from its own thread, with finite timeouts; waits that fail give
// the group back. In the end nothing may be left held.
TEST(GroupContentionTest, TwoOwnersOnOverlappingGroupsLeaveEverythingFree) {
  auto r1 = boost::make_shared<ZU::ZUResource>("R1", nullptr);
  auto r2 = boost::make_shared<ZU::ZUResource>("R2", nullptr);
  auto r3 = boost::make_shared<ZU::ZUResource>("R3", nullptr);
  auto g1 = makeGroup("G1", {r1, r2});
  auto g2 = makeGroup("G2", {r2, r3});
  auto run = [g1, g2](const std::string& name) {
    auto owner = makeOwner(name, name + "Module");
    for (int round = 0; round < 4; ++round) {
      try {
        g1->waitFor(owner, "", 1, {});
        g2->waitFor(owner, "", 1, {});
        ko::os::msleep(50);  // hold both for a while, so that the other owner waits
      } catch (const ZU::ZUError&) {
      }
      g2->release(owner);
      g1->release(owner);
    }
  };
  zutest::GuardedThread first([run] { run("a"); });
  zutest::GuardedThread second([run] { run("b"); });
  const bool firstDone = first.joinFor(30000);
  const bool secondDone = second.joinFor(30000);
  ASSERT_TRUE(firstDone && secondDone) << "the owners are stuck";
  for (const auto& r : {r1, r2, r3}) EXPECT_TRUE(r->isResourceFree()) << r->name;
  EXPECT_TRUE(g1->isResourceFree());
  EXPECT_TRUE(g2->isResourceFree());
}

// Race: reader re-entry while a writer waits.
//   thread 1: g->waitFor takes G's read lock, blocks in R's wait (R is held);
//   thread 2: g->addResource waits for G's write lock;
//   thread 1: the wait times out; g->release takes G's read lock again.
// A lock that queues the second read behind the waiting writer deadlocks.
TEST(GroupLockTest, ReleaseAfterAFailedWaitReentersTheReadLockWhileAWriterWaits) {
  auto r = boost::make_shared<ZU::ZUResource>("R", nullptr);
  auto g = makeGroup("G", {r});
  auto holder = makeOwner("h", "H");
  r->waitFor(holder, "", 0, {});

  zutest::GuardedThread waiter([g] {
    try {
      g->waitFor(makeOwner("o", "M"), "", 1, {});
    } catch (const ZU::ZUError&) {
    }
  });
  ASSERT_TRUE(zutest::waitUntil([&] { return holder->copyWaiters().size() == 1; }));
  zutest::GuardedThread writer(
      [g] { g->addResource(boost::make_shared<ZU::ZUResource>("Late", nullptr)); });

  EXPECT_FALSE(writer.joinFor(100)) << "the writer did not wait for the reader";
  ASSERT_TRUE(waiter.joinFor(10000)) << "deadlock: the release did not get the read lock";
  ASSERT_TRUE(writer.joinFor(10000)) << "the writer never got the lock";
  EXPECT_EQ(zutest::memberNames(*g), (Names{"R", "Late"}));
  EXPECT_TRUE(r->isResourceOwned("H"));
}

}  // namespace
