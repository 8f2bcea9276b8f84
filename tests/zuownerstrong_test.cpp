// Conflict arbitration of the strong owner: hand-down, the polled wait and
// the ways it ends, the waiters list and the wait timer.
#include <utility>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuhost/zuos.h>
#include <zuresource/zuownerstrong.h>

#include "support/conflictrun.h"
#include "support/resourcehelpers.h"

using ZU::ZUOwnerStrong;
using zutest::ConflictRun;
using zutest::waitFailed;
using zutest::waitUntil;

namespace {

const char* const kStop = "box stop while waiting";
const char* const kTimedOut = "resource wait has timeouted on R";
const int kPoll = ZUOwnerStrong::kPollPeriodMs;

boost::shared_ptr<ZUOwnerStrong> owner(const std::string& name) {
  return boost::make_shared<ZUOwnerStrong>(name, name + "-module", nullptr);
}
std::string waitersText(const ZUOwnerStrong& holder) {
  return holder.copyWaiters().serializeToText();
}
bool waitersReach(const ZUOwnerStrong& holder, std::size_t count) {
  return waitUntil([&] { return holder.copyWaiters().size() == count; });
}
/// Once `holder`'s wait timer reaches `ms`, frees `target` and returns the
/// timer as it was just before. Polls are counted, not wall time, so that a
/// loaded machine cannot shift a release to another poll.
int freeWhenTimerReaches(const ZUOwnerStrong& holder, int ms, ZU::ZUOwner& target) {
  EXPECT_TRUE(waitUntil([&] { return holder.timeout >= ms; }, 20000));
  const int seen = holder.timeout;
  target.freeResource();
  return seen;
}
void expectReleased(const zutest::ConflictOutcome& outcome) {
  EXPECT_FALSE(outcome.result);
  EXPECT_FALSE(outcome.error) << outcome.error->toString();
}

TEST(StrongOwner, HandsDownAtOnceOnlyToAProperByteDescendant) {
  const std::pair<const char*, const char*> pairs[] = {
      {"box/a", "box/a/b"}, {"ab", "abx"}, {"", "x"}};
  for (const auto& names : pairs) {
    SCOPED_TRACE(std::string(names.first) + " -> " + names.second);
    auto holder = owner(names.first), requester = owner(names.second);
    holder->timeout = 1400;
    holder->freeResource();
    EXPECT_TRUE(holder->conflict("R", requester, 0));
    EXPECT_EQ(requester->getParentOwner("R"), holder);
    EXPECT_FALSE(holder->copyWaiters().isValid());
    EXPECT_EQ(holder->getTimeout(), "1");  // no wait: timer and flag untouched
    EXPECT_TRUE(holder->resourceFreed);
  }
  EXPECT_FALSE(owner("Box/a/b")->isParent(owner("box/a")));
  EXPECT_FALSE(owner("box/a")->isParent(nullptr));
  // Equal names and ancestors wait.
  auto holder = owner("box/a"), same = owner("box/a"), ancestor = owner("box");
  ConflictRun sameRun(*holder, "R", same, 0), ancestorRun(*holder, "R", ancestor, 0);
  EXPECT_TRUE(waitFailed(sameRun.wait(), kTimedOut));
  EXPECT_TRUE(waitFailed(ancestorRun.wait(), kTimedOut));
  EXPECT_TRUE(same->parentOwners.empty() && ancestor->parentOwners.empty());
  EXPECT_EQ(waitersText(*holder), "[]");

  ZUOwnerStrong loose("box/a", "A", nullptr);  // no shared handle: no conflict
  EXPECT_THROW(loose.conflict("R", owner("box/b"), 0), boost::bad_weak_ptr);
}

// Every way out of a wait, each on a holder of its own, all at once.
TEST(StrongOwner, AWaitEndsByEitherReleaseOrAtTheFirstPollAfterTheTimeLimit) {
  auto freedBefore = owner("h1"), freedDuring = owner("h2"), oneSecond = owner("h3"),
       stopped = owner("h4"), stoppedBefore = owner("h5"), released = owner("h6");
  auto stoppedRequester = owner("q4"), stoppedBeforeRequester = owner("q5");
  // A wait clears its holder's flag, so a release before it is forgotten; the
  // requester's own flag stays, and the stop wins over a deadline that passed
  // in the same sleep.
  freedBefore->freeResource();
  stoppedBeforeRequester->freeResource();
  ConflictRun before(*freedBefore, "R", owner("q1"), 0), during(*freedDuring, "R", owner("q2"), 0),
      second(*oneSecond, "R", owner("q3"), 1), stop(*stopped, "R", stoppedRequester, -1),
      staleStop(*stoppedBefore, "R", stoppedBeforeRequester, 0),
      release(*released, "R", owner("q6"), -1);
  // Into the only sleep of a timeout-0 wait: seen too late. A release before
  // that wait starts gives the same error, so a slow start does not matter.
  ko::os::msleep(150);
  freedDuring->freeResource();
  const int stopAt = freeWhenTimerReaches(*stopped, 200, *stoppedRequester);
  const int releaseAt = freeWhenTimerReaches(*released, 1000, *released);

  EXPECT_TRUE(waitFailed(before.wait(), kTimedOut));
  EXPECT_TRUE(waitFailed(during.wait(), kTimedOut));
  EXPECT_EQ(freedBefore->timeout, kPoll);  // exactly one sleep
  EXPECT_EQ(freedDuring->timeout, kPoll);
  const zutest::ConflictOutcome timedOut = second.wait();
  EXPECT_TRUE(waitFailed(timedOut, kTimedOut));
  EXPECT_ELAPSED_NEAR(timedOut.elapsedMs, 1000);
  EXPECT_TRUE(waitFailed(stop.wait(), kStop));
  EXPECT_LE(stopped->timeout, stopAt + kPoll);
  EXPECT_TRUE(waitFailed(staleStop.wait(), kStop));
  EXPECT_EQ(stoppedBefore->timeout, kPoll);
  expectReleased(release.wait());
  EXPECT_GE(released->timeout, releaseAt);
  EXPECT_LE(released->timeout, releaseAt + kPoll);
  EXPECT_EQ(released->getTimeout(), "1");  // whole seconds, kept after the end
  for (auto* holder : {&freedBefore, &freedDuring, &oneSecond, &stopped, &stoppedBefore, &released})
    EXPECT_EQ(waitersText(**holder), "[]");

  ConflictRun next(*released, "R", owner("q7"), 0);  // the next wait starts over
  EXPECT_TRUE(waitFailed(next.wait(), kTimedOut));
  EXPECT_EQ(released->getTimeout(), "0");
}

TEST(StrongOwner, EachEndOfAWaitRemovesTheOldestWaiter) {
  auto holder = owner("box/h");
  ConflictRun first(*holder, "R", owner("box/a"), -1);
  ASSERT_TRUE(waitersReach(*holder, 1));
  ConflictRun second(*holder, "R", owner("box/b"), 1);
  ASSERT_TRUE(waitersReach(*holder, 2));
  EXPECT_EQ(waitersText(*holder), R"(["box/a-module","box/b-module"])");
  EXPECT_TRUE(waitFailed(second.wait(), kTimedOut));
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
TEST(StrongOwner, DestroyingTheHolderEndsItsWaitsFirst) {
  auto holder = owner("box/h");
  ConflictRun run(*holder, "R", owner("box/q"), -1);
  ASSERT_TRUE(waitersReach(*holder, 1));
  zutest::GuardedThread destroyer([&holder] { holder.reset(); });
  expectReleased(run.wait());
  EXPECT_TRUE(destroyer.joinFor(5000)) << "the destructor did not complete";
}

}  // namespace
