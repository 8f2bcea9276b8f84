// Conflict arbitration of the strong owner: hand-down, the polled wait and
// the ways it ends, the waiters list and the wait timer.
#include <utility>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuhost/zuos.h>
#include <zuresource/zuownerstrong.h>

#include "support/conflictrun.h"
#include "support/resourcehelpers.h"

using ZU::ZUOwnerStrong;
using zutest::ConflictOutcome;
using zutest::ConflictRun;
using zutest::waitFailed;
using zutest::waitUntil;

namespace {

const char* const kStop = "box stop while waiting";

class StrongOwnerTest : public ::testing::Test {
 protected:
  static boost::shared_ptr<ZUOwnerStrong> owner(const std::string& name) {
    return boost::make_shared<ZUOwnerStrong>(name, name + "-module", nullptr);
  }
  static std::string waitersText(const ZUOwnerStrong& holder) {
    return holder.copyWaiters().serializeToText();
  }
  /// Blocks until `count` requesters are listed on `holder`.
  static bool waitersReach(const ZUOwnerStrong& holder, std::size_t count) {
    return waitUntil([&] { return holder.copyWaiters().size() == count; });
  }
  /// Once `holder`'s wait timer reaches `ms`, frees `target` and returns the
  /// timer as it was just before. Polls are counted, not wall time, so that a
  /// loaded machine cannot shift a release to another poll.
  static int freeWhenTimerReaches(const ZUOwnerStrong& holder, int ms, ZU::ZUOwner& target) {
    EXPECT_TRUE(waitUntil([&] { return holder.timeout >= ms; }, 20000));
    const int seen = holder.timeout;
    target.freeResource();
    return seen;
  }
  static void expectReleased(const ConflictOutcome& outcome) {
    EXPECT_FALSE(outcome.result);
    EXPECT_FALSE(outcome.error) << outcome.error->toString();
    EXPECT_FALSE(outcome.otherException);
  }
};

TEST_F(StrongOwnerTest, HandsDownAtOnceToADescendantAndLeavesItselfAlone) {
  const std::vector<std::pair<std::string, std::string>> pairs = {
      {"box/a", "box/a/b"}, {"ab", "abx"}, {"", "x"}};
  for (const auto& names : pairs) {
    SCOPED_TRACE(names.first + " -> " + names.second);
    auto holder = owner(names.first);
    auto requester = owner(names.second);
    holder->timeout = 1400;
    holder->freeResource();
    EXPECT_TRUE(holder->conflict("R", requester, 0));
    EXPECT_EQ(requester->getParentOwner("R"), holder);
    EXPECT_FALSE(holder->copyWaiters().isValid());
    EXPECT_EQ(holder->getTimeout(), "1");
    EXPECT_TRUE(holder->resourceFreed);
  }
}

TEST_F(StrongOwnerTest, IsParentIsACaseSensitiveProperPrefix) {
  EXPECT_TRUE(owner("box/ab")->isParent(owner("box/a")));
  EXPECT_FALSE(owner("Box/a/b")->isParent(owner("box/a")));
  EXPECT_FALSE(owner("")->isParent(owner("")));
  EXPECT_FALSE(owner("box/a")->isParent(nullptr));
}

TEST_F(StrongOwnerTest, EqualNamesAndAncestorsWait) {
  auto holder = owner("box/a");
  auto same = owner("box/a");
  auto ancestor = owner("box");
  ConflictRun sameRun(*holder, "R", same, 0);
  ConflictRun ancestorRun(*holder, "R", ancestor, 0);
  EXPECT_TRUE(waitFailed(sameRun.wait(), "resource wait has timeouted on R"));
  EXPECT_TRUE(waitFailed(ancestorRun.wait(), "resource wait has timeouted on R"));
  EXPECT_TRUE(same->parentOwners.empty());
  EXPECT_TRUE(ancestor->parentOwners.empty());
  EXPECT_EQ(waitersText(*holder), "[]");
}

TEST_F(StrongOwnerTest, ConflictNeedsAHolderOwnedBySharedHandle) {
  ZUOwnerStrong loose("box/a", "A", nullptr);
  EXPECT_THROW(loose.getThis(), boost::bad_weak_ptr);
  EXPECT_THROW(loose.conflict("R", owner("box/b"), 0), boost::bad_weak_ptr);
  EXPECT_FALSE(loose.copyWaiters().isValid());
}

TEST_F(StrongOwnerTest, HolderReleaseEndsTheWaitAtTheNextPoll) {
  auto holder = owner("box/h");
  ConflictRun run(*holder, "R", owner("box/q"), -1);
  ASSERT_TRUE(waitersReach(*holder, 1));
  EXPECT_EQ(waitersText(*holder), R"(["box/q-module"])");
  const int released = freeWhenTimerReaches(*holder, 400, *holder);  // in the third sleep
  expectReleased(run.wait());
  EXPECT_GE(holder->timeout, released);
  EXPECT_LE(holder->timeout, released + ZUOwnerStrong::kPollPeriodMs);
  EXPECT_EQ(waitersText(*holder), "[]");
}

TEST_F(StrongOwnerTest, TimeLimitEndsTheWaitAtTheFirstPollAfterTheDeadline) {
  // With timeout 0 the wait sleeps exactly once: a release of the holder
  // before the wait is forgotten, one during the sleep is seen too late.
  auto freedBefore = owner("h1");
  auto freedDuring = owner("h2");
  auto oneSecond = owner("h3");
  freedBefore->freeResource();
  ConflictRun before(*freedBefore, "R1", owner("q1"), 0);
  ConflictRun during(*freedDuring, "R2", owner("q2"), 0);
  ConflictRun second(*oneSecond, "Head", owner("q3"), 1);
  // Into the sleep; a release before the wait starts or after it ends gives
  // the same error, so a slow start of the wait does not matter.
  ko::os::msleep(150);
  freedDuring->freeResource();

  EXPECT_TRUE(waitFailed(before.wait(), "resource wait has timeouted on R1"));
  EXPECT_TRUE(waitFailed(during.wait(), "resource wait has timeouted on R2"));
  EXPECT_EQ(freedBefore->timeout, 200);
  EXPECT_EQ(freedDuring->timeout, 200);
  const ConflictOutcome outcome = second.wait();
  EXPECT_TRUE(waitFailed(outcome, "resource wait has timeouted on Head"));
  EXPECT_ELAPSED_NEAR(outcome.elapsedMs, 1000);
  for (auto* holder : {freedBefore.get(), freedDuring.get(), oneSecond.get()})
    EXPECT_EQ(waitersText(*holder), "[]");
}

TEST_F(StrongOwnerTest, GetTimeoutGivesWholeSecondsOfTheLatestWait) {
  auto h0 = owner("h0"), h1 = owner("h1"), h2 = owner("h2");
  EXPECT_EQ(h2->getTimeout(), "0");
  // No limit: these waits never time out and end by the holders' release.
  ConflictRun underASecond(*h0, "R", owner("q0"), -1);
  ConflictRun aSecond(*h1, "R", owner("q1"), -1);
  ConflictRun twoSeconds(*h2, "R", owner("q2"), -1);
  // Each wait ends at the poll where the release is made or at the next.
  freeWhenTimerReaches(*h0, 600, *h0);   // ends at 600 or 800 ms
  freeWhenTimerReaches(*h1, 1000, *h1);  // 1000 or 1200 ms
  ASSERT_TRUE(waitUntil([&] { return h2->timeout >= 1000; }));
  EXPECT_EQ(h2->getTimeout(), "1");  // read while the wait runs
  freeWhenTimerReaches(*h2, 2400, *h2);  // 2400 or 2600 ms
  for (ConflictRun* run : {&underASecond, &aSecond, &twoSeconds}) expectReleased(run->wait());
  EXPECT_EQ(h0->getTimeout(), "0");
  EXPECT_EQ(h1->getTimeout(), "1");
  EXPECT_EQ(h2->getTimeout(), "2");  // kept after the end

  ConflictRun next(*h2, "R", owner("q3"), 0);  // the next wait starts over
  EXPECT_TRUE(waitFailed(next.wait(), "resource wait has timeouted on R"));
  EXPECT_EQ(h2->timeout, 200);
}

TEST_F(StrongOwnerTest, RequesterReleaseStopsItsOwnWait) {
  // Released while it waits without limit: stopped at the next poll.
  auto h1 = owner("h1"), q1 = owner("q1");
  ConflictRun noLimit(*h1, "R", q1, -1);
  // Released earlier (say, as it let go of another resource): its own wait
  // does not clear its flag, and the stop wins over the deadline that passed
  // in the same sleep.
  auto h2 = owner("h2"), stale = owner("q2");
  stale->freeResource();
  ConflictRun staleFlag(*h2, "R", stale, 0);

  const int released = freeWhenTimerReaches(*h1, 200, *q1);
  EXPECT_TRUE(waitFailed(noLimit.wait(), kStop));
  EXPECT_LE(h1->timeout, released + ZUOwnerStrong::kPollPeriodMs);
  EXPECT_TRUE(waitFailed(staleFlag.wait(), kStop));
  EXPECT_EQ(h2->timeout, 200);  // after the first sleep
  EXPECT_EQ(waitersText(*h1), "[]");
  EXPECT_EQ(waitersText(*h2), "[]");
}

TEST_F(StrongOwnerTest, EachEndOfAWaitRemovesTheOldestWaiter) {
  auto holder = owner("box/h");
  ConflictRun first(*holder, "R", owner("box/a"), -1);
  ASSERT_TRUE(waitersReach(*holder, 1));
  ConflictRun second(*holder, "R", owner("box/b"), 1);
  ASSERT_TRUE(waitersReach(*holder, 2));
  EXPECT_EQ(waitersText(*holder), R"(["box/a-module","box/b-module"])");

  EXPECT_TRUE(waitFailed(second.wait(), "resource wait has timeouted on R"));
  EXPECT_EQ(waitersText(*holder), R"(["box/b-module"])");  // the oldest went, not b's
  holder->freeResource();
  expectReleased(first.wait());
  EXPECT_EQ(waitersText(*holder), "[]");
}

// Found and fixed: a wait kept a handle on its holder. Dropping the holder's
// last outside handle then left the wait polling on, and when the wait ended
// its own handle ran the destructor in the waiting thread:
//   test: holder.reset()          count 2 -> 1, the release flag is never set
//   wait: ends, drops its handle  ~ZUOwnerStrong takes conflictMutex (write)
//                                 while this thread holds it (read): hang.
TEST_F(StrongOwnerTest, DestroyingTheHolderEndsItsWaitsFirst) {
  auto holder = owner("box/h");
  ConflictRun run(*holder, "R", owner("box/q"), -1);
  ASSERT_TRUE(waitersReach(*holder, 1));
  zutest::GuardedThread destroyer([&holder] { holder.reset(); });
  expectReleased(run.wait());
  EXPECT_TRUE(destroyer.joinFor(5000)) << "the destructor did not complete";
}

}  // namespace
