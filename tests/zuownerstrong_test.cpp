// Conflict arbitration of the strong owner: hand-down, the polled wait and
// the ways it ends, the waiters list and the wait timer.
#include <utility>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuhost/zuos.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuownerstrong.h>

#include "support/conflictrun.h"
#include "support/resourcehelpers.h"

using ZU::ZUOwnerStrong;
using zutest::ConflictRun;
using zutest::waitFailed;
using zutest::waitUntil;

namespace {

const char* const kStop = ZU::contract::kStopWhileWaiting;
const std::string kTimedOut = ZU::contract::waitTimedOut("R");
const int kPoll = ZUOwnerStrong::kPollPeriodMs;

boost::shared_ptr<ZUOwnerStrong> owner(const std::string& name) {
  return boost::make_shared<ZUOwnerStrong>(name, name + "-module", nullptr);
}
bool waitersReach(const ZUOwnerStrong& holder, std::size_t count) {
  return waitUntil([&] { return holder.copyWaiters().size() == count; });
}
/// Frees `target` once `holder`'s wait timer reaches `ms` (polls, not wall
/// time, so a loaded machine cannot shift it); returns the timer seen.
int freeWhenTimerReaches(const ZUOwnerStrong& holder, int ms, ZU::ZUOwner& target) {
  EXPECT_TRUE(waitUntil([&] { return holder.timeout >= ms; }, 20000));
  const int seen = holder.timeout;
  target.freeResource();
  return seen;
}
void expectReleased(const zutest::ConflictOutcome& outcome) {
  EXPECT_FALSE(outcome.result || outcome.error) << "not a plain release";
}

TEST(StrongOwner, HandsDownAtOnceOnlyToAProperByteDescendant) {
  const std::pair<const char*, const char*> pairs[] = {
      {"box/a", "box/a/b"}, {"ab", "abx"}, {"", "x"}};
  for (const auto& names : pairs) {
    SCOPED_TRACE(std::string(names.first) + " -> " + names.second);
    auto holder = owner(names.first), requester = owner(names.second);
    holder->freeResource();
    EXPECT_TRUE(holder->conflict("R", requester, 0));
    EXPECT_EQ(requester->getParentOwner("R"), holder);
    EXPECT_TRUE(holder->resourceFreed) << "no wait, so the flag is untouched";
  }
  // Equal names and ancestors wait.
  auto holder = owner("box/a"), same = owner("box/a"), ancestor = owner("box");
  ConflictRun sameRun(*holder, "R", same, 0), ancestorRun(*holder, "R", ancestor, 0);
  EXPECT_TRUE(waitFailed(sameRun.wait(), kTimedOut));
  EXPECT_TRUE(waitFailed(ancestorRun.wait(), kTimedOut));
  EXPECT_TRUE(same->parentOwners.empty() && ancestor->parentOwners.empty());
  EXPECT_EQ(holder->copyWaiters().serializeToText(), "[]");
}

// Every way out of a wait, each on a holder of its own, all at once.
TEST(StrongOwner, AWaitEndsByEitherReleaseOrAtTheFirstPollAfterTheTimeLimit) {
  auto freedBefore = owner("h1"), freedDuring = owner("h2"), oneSecond = owner("h3"),
       stopped = owner("h4"), stoppedBefore = owner("h5"), released = owner("h6");
  auto stoppedRequester = owner("q4"), stoppedBeforeRequester = owner("q5");
  // A wait clears its holder's flag but not its requester's; a stop beats a
  // deadline passed in the same sleep.
  freedBefore->freeResource();
  stoppedBeforeRequester->freeResource();
  ConflictRun before(*freedBefore, "R", owner("q1"), 0), during(*freedDuring, "R", owner("q2"), 0),
      second(*oneSecond, "R", owner("q3"), 1), stop(*stopped, "R", stoppedRequester, -1),
      staleStop(*stoppedBefore, "R", stoppedBeforeRequester, 0),
      release(*released, "R", owner("q6"), -1);
  // Into the only sleep of a timeout-0 wait: seen too late, as before it.
  ko::os::msleep(150);
  freedDuring->freeResource();
  const int stopAt = freeWhenTimerReaches(*stopped, 200, *stoppedRequester);
  const int releaseAt = freeWhenTimerReaches(*released, 1000, *released);

  EXPECT_TRUE(waitFailed(before.wait(), kTimedOut));
  EXPECT_TRUE(waitFailed(during.wait(), kTimedOut));
  EXPECT_EQ(freedBefore->timeout, kPoll);  // exactly one sleep
  const zutest::ConflictOutcome timedOut = second.wait();
  EXPECT_TRUE(waitFailed(timedOut, kTimedOut));
  EXPECT_ELAPSED_NEAR(timedOut.elapsedMs, 1000);
  EXPECT_TRUE(waitFailed(stop.wait(), kStop));
  EXPECT_LE(stopped->timeout, stopAt + kPoll);
  EXPECT_TRUE(waitFailed(staleStop.wait(), kStop));
  expectReleased(release.wait());
  EXPECT_TRUE(released->timeout >= releaseAt && released->timeout <= releaseAt + kPoll);
  EXPECT_EQ(released->getTimeout(), "1");  // whole seconds, kept after the end

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
  EXPECT_EQ(holder->copyWaiters().serializeToText(), R"(["box/a-module","box/b-module"])");
  EXPECT_TRUE(waitFailed(second.wait(), kTimedOut));
  EXPECT_EQ(holder->copyWaiters().serializeToText(),
            R"(["box/b-module"])");  // the oldest went, not b's
  holder->freeResource();
  expectReleased(first.wait());
  EXPECT_EQ(holder->copyWaiters().serializeToText(), "[]");
}

// Found and fixed: a wait kept a handle on its holder, so dropping the last
// outside handle left it polling, and its own handle then ran the destructor:
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
