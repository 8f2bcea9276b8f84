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
  ko::os::msleep(500);
  holder->freeResource();
  const ConflictOutcome outcome = run.wait();
  expectReleased(outcome);
  EXPECT_ELAPSED_NEAR(outcome.elapsedMs, 600);
  EXPECT_EQ(waitersText(*holder), "[]");
  EXPECT_EQ(holder->getTimeout(), "0");
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
  ASSERT_TRUE(waitersReach(*freedDuring, 1));
  ko::os::msleep(100);
  freedDuring->freeResource();

  ConflictOutcome outcome = before.wait();
  EXPECT_TRUE(waitFailed(outcome, "resource wait has timeouted on R1"));
  EXPECT_ELAPSED_NEAR(outcome.elapsedMs, 200);
  outcome = during.wait();
  EXPECT_TRUE(waitFailed(outcome, "resource wait has timeouted on R2"));
  EXPECT_EQ(freedDuring->timeout, 200);
  outcome = second.wait();
  EXPECT_TRUE(waitFailed(outcome, "resource wait has timeouted on Head"));
  EXPECT_ELAPSED_NEAR(outcome.elapsedMs, 1000);
  EXPECT_EQ(oneSecond->getTimeout(), "1");
  for (auto* holder : {freedBefore.get(), freedDuring.get(), oneSecond.get()})
    EXPECT_EQ(waitersText(*holder), "[]");
}

TEST_F(StrongOwnerTest, GetTimeoutGivesWholeSecondsOfTheLatestWait) {
  auto shortHolder = owner("h1");
  auto longHolder = owner("h2");
  EXPECT_EQ(longHolder->getTimeout(), "0");
  zutest::Stopwatch watch;
  ConflictRun shortRun(*shortHolder, "R", owner("q1"), -1);
  ConflictRun longRun(*longHolder, "R", owner("q2"), -1);  // no limit: never times out

  ko::os::msleep(700);
  shortHolder->freeResource();
  expectReleased(shortRun.wait());
  EXPECT_EQ(shortHolder->getTimeout(), "0");  // about 800 ms

  ko::os::msleep(static_cast<unsigned>(std::max(0L, 2500 - watch.elapsedMs())));
  EXPECT_EQ(longHolder->getTimeout(), "2");  // read while the wait still runs
  longHolder->freeResource();
  expectReleased(longRun.wait());
  EXPECT_EQ(longHolder->getTimeout(), "2");  // about 2600 ms, kept after the end

  ConflictRun next(*longHolder, "R", owner("q3"), 0);  // a new wait starts over
  EXPECT_TRUE(waitFailed(next.wait(), "resource wait has timeouted on R"));
  EXPECT_EQ(longHolder->timeout, 200);
}

TEST_F(StrongOwnerTest, RequesterReleaseStopsItsOwnWait) {
  auto h1 = owner("h1"), h2 = owner("h2"), h3 = owner("h3");
  auto q1 = owner("q1"), q2 = owner("q2"), stale = owner("q3");
  // A flag set earlier (say, when q3 released another resource) is not
  // cleared by q3's own wait as requester.
  stale->freeResource();
  ConflictRun noLimit(*h1, "R", q1, -1);
  ConflictRun deadlineInSameSleep(*h2, "R", q2, 0);
  ConflictRun staleFlag(*h3, "R", stale, -1);
  ASSERT_TRUE(waitersReach(*h1, 1) && waitersReach(*h2, 1));
  ko::os::msleep(100);
  q1->freeResource();
  q2->freeResource();
  for (ConflictRun* run : {&noLimit, &deadlineInSameSleep, &staleFlag}) {
    const ConflictOutcome outcome = run->wait();
    EXPECT_TRUE(waitFailed(outcome, kStop));
    EXPECT_ELAPSED_NEAR(outcome.elapsedMs, 200);
  }
  for (auto* holder : {h1.get(), h2.get(), h3.get()}) EXPECT_EQ(waitersText(*holder), "[]");
}

TEST_F(StrongOwnerTest, EachEndOfAWaitRemovesTheOldestWaiter) {
  auto holder = owner("box/h");
  ConflictRun first(*holder, "R", owner("box/a"), -1);
  ASSERT_TRUE(waitersReach(*holder, 1));
  ConflictRun second(*holder, "R", owner("box/b"), 0);
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
  zutest::Stopwatch sinceDrop;
  zutest::GuardedThread destroyer([&holder] { holder.reset(); });
  expectReleased(run.wait());
  EXPECT_LE(sinceDrop.elapsedMs(), ZUOwnerStrong::kPollPeriodMs + zutest::kLateToleranceMs);
  EXPECT_TRUE(destroyer.joinFor(5000)) << "the destructor did not complete";
}

}  // namespace
