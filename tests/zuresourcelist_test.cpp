// Resource groups: membership, queries and reports, then acquisition, which
// walks the members.
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
using ResourcePtr = boost::shared_ptr<ZU::ZUResource>;
using zutest::errorOf;
using zutest::makeGroup;
using zutest::makeOwner;
using zutest::makePlain;
using zutest::memberNames;


TEST(GroupMembershipTest, EmptyGroupAnswersFromNoMembersAndAcquiresNothing) {
  auto g = makeGroup("G", {});
  EXPECT_TRUE(g->isResourceFree());
  EXPECT_TRUE(g->isResourceOwned("AnyModule"));
  EXPECT_TRUE(g->isInGroup("G"));
  EXPECT_FALSE(g->isInGroup(""));
  EXPECT_EQ(g->httpGet(-1), "G<br />");
  EXPECT_EQ(g->httpGet(1), "------G<br />");
  EXPECT_EQ(g->ownersGet().serializeToText(), R"([["G"]])");

  auto owner = makeOwner("o", "M");
  for (bool abort : {false, true}) {
    g->setAbortRequested(abort);
    EXPECT_TRUE(g->waitFor(owner, "", 0, {"G"}).empty());
    g->switchOwner(owner, "", 0);
    g->release(owner);
  }
  EXPECT_FALSE(owner->resourceFreed);
}

TEST(GroupMembershipTest, DeleteRemovesTheFirstMatchAndKeepsTheOrder) {
  auto a = makePlain("A");
  auto g = makeGroup("G", {a, makePlain("B"), a, makePlain("C")});
  g->deleteResource("A");
  EXPECT_EQ(memberNames(*g), (Names{"B", "A", "C"}));
  g->deleteResource("A");
  EXPECT_EQ(memberNames(*g), (Names{"B", "C"}));

  auto error = errorOf([&] { g->deleteResource("A"); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->getModule(), "ZUResourceList");
  EXPECT_EQ(error->getMethod(), "deleteResource");
  EXPECT_EQ(error->getDescription(), "Resource not found A");
  EXPECT_EQ(error->getSourceFile(), "behavior/lib/zuresource/zuresource/zuresourcelist");
  EXPECT_EQ(error->getLine(), 156u);
  EXPECT_EQ(memberNames(*g), (Names{"B", "C"}));
}

TEST(GroupMembershipTest, AddResourceTakesASecondCopyButNoCycle) {
  auto k = makeGroup("K", {});
  auto h = makeGroup("H", {k});
  auto g = makeGroup("G", {h});
  EXPECT_TRUE(errorOf([&] { h->addResource(g); }));
  h->addResource(k);
  EXPECT_EQ(memberNames(*h), (Names{"K", "K"}));
}

TEST(GroupMembershipTest, QueriesAndReportsNestAndLeaveOutMembersWithoutAValue) {
  // G holds A and H; H holds B.
  auto a = makePlain("A");
  auto b = makePlain("B");
  auto h = makeGroup("H", {b});
  auto g = makeGroup("G", {a, h});
  for (const char* name : {"G", "A", "H", "B"}) EXPECT_TRUE(g->isInGroup(name)) << name;
  EXPECT_FALSE(g->isInGroup("b"));
  EXPECT_FALSE(h->isInGroup("A"));

  EXPECT_EQ(g->httpGet(0), "---G<br />------A<br />------H<br />---------B<br />");
  EXPECT_EQ(g->ownersGet().serializeToText(), R"([["G"],[["A"],[["H"],[["B"]]]]])");
  auto owner = makeOwner("o", "M");
  b->waitFor(owner, "", 0, {});
  a->waitFor(owner, "", 0, {});
  EXPECT_EQ(g->httpGet(-1), "G<br />---A -> M eStrong null 0<br />---H<br />"
                            "------B -> M eStrong null 0<br />");
  EXPECT_EQ(g->ownersGet().serializeToText(),
            R"([["G"],[["A","M",null],[["H"],[["B","M",null]]]]])");

  // Plain resources and groups named "ZU..." give an invalid value; states do not.
  EXPECT_EQ(makeGroup("G", {makePlain("ZUA"), makeGroup("ZUH", {b})})->ownersGet().serializeToText(),
            R"([["G"]])");
  auto mixed = makeGroup(
      "G", {makePlain("ZUA"), makePlain("A"), boost::make_shared<ZU::ZUResourceState>("ZUS", nullptr)});
  EXPECT_EQ(mixed->ownersGet().serializeToText(), R"([["G"],[["A"],["ZUS"]]])");
  EXPECT_FALSE(makeGroup("ZUGroup", {a})->ownersGet().isValid());
}

TEST(GroupMembershipTest, IsResourceFreeStopsAtTheFirstBusyMemberAndOwnedAsksEvery) {
  auto log = boost::make_shared<zutest::CallLog>();
  auto r1 = zutest::makeRecording("R1", log);
  auto r2 = zutest::makeRecording("R2", log);
  auto g = makeGroup("G", {r1, r2, zutest::makeRecording("R3", log)});
  auto owner = makeOwner("o", "M");
  r2->inner()->waitFor(owner, "", 0, {});

  EXPECT_FALSE(g->isResourceFree());
  EXPECT_EQ(log->entries(), (Names{"R1.isResourceFree", "R2.isResourceFree"}));
  EXPECT_FALSE(g->isResourceOwned("M"));
  g->waitFor(owner, "", 0, {});
  EXPECT_TRUE(g->isResourceOwned("M"));
  EXPECT_FALSE(g->isResourceOwned("emptyOwner"));
}

// --- Acquisition -------------------------------------------------------------------

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

TEST_F(GroupAcquireTest, NamesNotWaitedForAreJoinedInMemberOrderAndTheRestStaysHeld) {
  for (const auto& busy : {r1, r3}) busy->inner()->waitFor(other, "", 0, {});
  EXPECT_EQ(g->waitFor(owner, "", 0, {"R3", "R2", "R1"}), (Names{"R1", "R3"}));
  EXPECT_EQ(log->entries(), (Names{"R1.waitFor", "R2.waitFor", "R3.waitFor"}));  // no release
  EXPECT_TRUE(r1->isResourceOwned("X"));
  EXPECT_TRUE(r2->isResourceOwned("M"));
  EXPECT_TRUE(r3->isResourceOwned("X"));
}

TEST_F(GroupAcquireTest, FailingMemberReleasesEveryMemberAndRethrowsTheVeryError) {
  r2->failWaitFor("R2 gave up");
  try {
    g->waitFor(owner, "", 0, {});
    ADD_FAILURE() << "no error";
  } catch (const ZU::ZUError& error) {
    EXPECT_EQ(&error, r2->lastError()) << "a copy was thrown on";
    EXPECT_EQ(error.getDescription(), "R2 gave up");
  }
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

TEST_F(GroupAcquireTest, AbortBeforeWaitForOrSwitchOwnerReleasesEveryMember) {
  g->setAbortRequested(true);
  EXPECT_TRUE(g->waitFor(owner, "", 0, {}).empty());
  g->switchOwner(owner, "", 0);
  EXPECT_EQ(log->entries(), (Names{"R1.release", "R2.release", "R3.release", "R1.release",
                                   "R2.release", "R3.release"}));
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

TEST(GroupMixedTest, StateMemberIsAcquiredByItsOwnRules) {
  auto a = makePlain("A");
  auto s = boost::make_shared<ZU::ZUResourceState>("S", nullptr);
  auto g = makeGroup("G", {a, s});
  auto owner = makeOwner("o", "M");
  EXPECT_EQ(g->waitFor(owner, "", 0, {"S"}), Names{"S"});  // S is off
  EXPECT_TRUE(a->isResourceOwned("M"));
  g->release(owner);  // this also stops the owner: the next wait is another's

  owner = makeOwner("p", "M");
  auto error = errorOf([&] { g->waitFor(owner, "", 0, {}); });  // waits one poll for S
  ASSERT_TRUE(error);
  EXPECT_EQ(error->getDescription(), "resource wait has timeouted on S");
  EXPECT_TRUE(a->isResourceFree()) << "the failed walk gave A back";

  s->setState(true);
  EXPECT_TRUE(g->waitFor(owner, "", 0, {}).empty());
  EXPECT_EQ(zutest::holderNames(*s), Names{"p"});
  g->release(owner);
  EXPECT_TRUE(g->isResourceFree());
  EXPECT_TRUE(zutest::holderNames(*s).empty());
}

// Two owners take the overlapping groups G1 {R1, R2} and G2 {R2, R3} over and
// over, each from its own thread, with finite timeouts; waits that fail give
// the group back. In the end nothing may be left held.
TEST(GroupContentionTest, TwoOwnersOnOverlappingGroupsLeaveEverythingFree) {
  auto r1 = makePlain("R1");
  auto r2 = makePlain("R2");
  auto r3 = makePlain("R3");
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
  zutest::GuardedThread first([run] { run("a"); }), second([run] { run("b"); });
  const bool firstDone = first.joinFor(30000);
  ASSERT_TRUE(second.joinFor(30000) && firstDone) << "the owners are stuck";
  for (const auto& r : {r1, r2, r3}) EXPECT_TRUE(r->isResourceFree()) << r->name;
}

// Race: reader re-entry while a writer waits.
//   thread 1: g->waitFor takes G's read lock, blocks in R's wait (R is held);
//   thread 2: g->addResource waits for G's write lock;
//   thread 1: the wait times out; g->release takes G's read lock again.
// A lock that queues the second read behind the waiting writer deadlocks.
TEST(GroupLockTest, ReleaseAfterAFailedWaitReentersTheReadLockWhileAWriterWaits) {
  auto r = makePlain("R");
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
      [g] { g->addResource(makePlain("Late")); });

  EXPECT_FALSE(writer.joinFor(100)) << "the writer did not wait for the reader";
  ASSERT_TRUE(waiter.joinFor(10000)) << "deadlock: the release did not get the read lock";
  ASSERT_TRUE(writer.joinFor(10000)) << "the writer never got the lock";
  EXPECT_EQ(memberNames(*g), (Names{"R", "Late"}));
  EXPECT_TRUE(r->isResourceOwned("H"));
}

}  // namespace
