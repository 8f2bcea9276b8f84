// Conflict arbitration of the strong owner: hand-down, the polled wait (every
// way it ends, with its waiters list, its record and its timer) and the
// notification of the holder's module through a real in-process broker. A
// missing holder module or a gone broker are host-fault tests.
#include <algorithm>
#include <functional>
#include <string>
#include <utility>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zuhost/zubroker.h>
#include <zuhost/zuos.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuownerstrong.h>
#include <zuresource/zuwaitregistry.h>

#include "support/asyncrun.h"
#include "support/recordingmodule.h"
#include "support/resourcehelpers.h"
#include "support/threads.h"

using ZU::ZUOwnerStrong;
using zutest::ConflictRun;
using zutest::waitFailed;
using zutest::waitUntil;

namespace {

const std::string kStop = ZU::contract::kStopWhileWaiting;
const std::string kTimedOut = ZU::contract::waitTimedOut("R");
const int kPoll = ZUOwnerStrong::kPollPeriodMs;

boost::shared_ptr<ZUOwnerStrong> owner(const std::string& name) {
  return boost::make_shared<ZUOwnerStrong>(name, name + "-module", nullptr);
}
TEST(StrongOwner, HandsDownAtOnceOnlyToAProperByteDescendant) {
  const std::pair<std::string, std::string> pairs[] = {
      {"box/a", "box/a/b"}, {"ab", "abx"}, {"", "x"}, {"a", std::string("a\0b", 3)}};
  for (const auto& names : pairs) {
    SCOPED_TRACE(names.first + " -> " + names.second);
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

// Every way a wait on a strong holder ends, one row each. Each row runs on a
// fresh holder whose waiters list already holds an earlier entry and whose
// timer holds a leftover: the end must remove the oldest entry (leaving the
// requester's), drop the wait's record (which kept no holder alive), and the
// timer must count this wait's polls only.
TEST(StrongOwner, EveryWayAWaitEnds) {
  using Holder = boost::shared_ptr<ZUOwnerStrong>;
  enum class When { Before, InTheOnlySleep, AtTimer200, AtTimer1000, Never };
  struct Row {
    const char* name;
    int limit;  // seconds
    When when;
    std::function<void(Holder& holder, ZU::ZUOwner& requester)> trigger;
    std::string error;       // empty: conflict() returns false
    int timerMin, timerMax;  // the holder's timer at the end, ms, past its value at a timed trigger
  };
  auto letGo = [](Holder& holder, ZU::ZUOwner&) { holder->freeResource(); };
  auto stop = [](Holder&, ZU::ZUOwner& requester) { requester.freeResource(); };
  // Found and fixed: a wait kept a handle on its holder, so dropping the last
  // outside handle left it polling, and its own handle then ran the destructor:
  //   test: holder.reset()          count 2 -> 1, the release flag is never set
  //   wait: ends, drops its handle  ~ZUOwnerStrong takes conflictMutex (write)
  //                                 while this thread holds it (read): hang.
  auto destroy = [](Holder& holder, ZU::ZUOwner&) {
    zutest::GuardedThread destroyer([&holder] { holder.reset(); });
    EXPECT_TRUE(destroyer.joinFor(5000)) << "the destructor did not complete";
  };
  const Row rows[] = {
      {"holder lets go", -1, When::AtTimer1000, letGo, "", 0, kPoll},
      {"holder let go before the wait", 0, When::Before, letGo, kTimedOut, kPoll, kPoll},
      {"holder lets go in the only sleep", 0, When::InTheOnlySleep, letGo, kTimedOut, kPoll, kPoll},
      {"time limit", 1, When::Never, nullptr, kTimedOut, 1000, 1000 + kPoll},
      {"requester stopped", -1, When::AtTimer200, stop, kStop, 0, kPoll},
      {"requester stopped before, limit passed too", 0, When::Before, stop, kStop, kPoll, kPoll},
      {"holder destroyed (the destroyed-holder race)", -1, When::AtTimer200, destroy, "", 0, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Holder holder = owner("h");
    auto requester = owner("q");
    holder->addWaiter(owner("e"), 0);
    holder->timeout = 100;  // left over from an earlier wait
    const boost::weak_ptr<ZU::ZUOwner> watched = holder;
    if (row.when == When::Before) row.trigger(holder, *requester);
    ConflictRun run(*holder, "R", requester, row.limit);
    ASSERT_TRUE(waitUntil([] { return ZU::ZUWaitRegistry::snapshot().size() == 1; }));
    EXPECT_EQ(ZU::ZUWaitRegistry::snapshot().front().waiterOwner.lock(), requester);
    // The record keeps the requester's limit, not the holder's leftover timer.
    EXPECT_EQ(ZU::ZUWaitRegistry::snapshot().front().timeout, row.limit);
    if (row.when == When::InTheOnlySleep) ko::os::msleep(150);
    int base = 0;  // the timer when the trigger came
    if (row.when == When::AtTimer200 || row.when == When::AtTimer1000) {
      const int at = row.when == When::AtTimer200 ? 200 : 1000;
      ASSERT_TRUE(waitUntil([&] { return holder->timeout >= at; }, 20000));
      base = holder->timeout;
    }
    if (row.when != When::Before && row.trigger) row.trigger(holder, *requester);

    const zutest::ConflictOutcome outcome = run.wait();
    EXPECT_TRUE(row.error.empty() ? zutest::waitReturned(outcome) : waitFailed(outcome, row.error));
    if (row.limit > 0) EXPECT_ELAPSED_NEAR(outcome.elapsedMs, row.limit * 1000);
    EXPECT_TRUE(ZU::ZUWaitRegistry::snapshot().empty());
    EXPECT_EQ(!holder, watched.expired());
    if (!holder) continue;
    EXPECT_EQ(holder->copyWaiters().serializeToText(), R"(["q-module"])");
    EXPECT_GE(holder->timeout, base + row.timerMin);
    EXPECT_LE(holder->timeout, base + row.timerMax);
    EXPECT_EQ(holder->getTimeout(), std::to_string(holder->timeout / 1000));  // whole seconds
  }
}

TEST(StrongOwner, EachWaitSendsOneOnResourceWithTheResourceNameAndAHandDownNone) {
  auto broker = boost::make_shared<ZU::ZUBroker>();
  auto holder = owner("box/h");
  holder->setParentBroker(broker);
  zutest::RecordingModule module(broker, "box/h-module");
  EXPECT_TRUE(holder->conflict("Legs", owner("box/h/child"), 0));
  module.onResource([&](const std::string&) { holder->freeResource(); });
  for (const char* resource : {"Head", "LArm"})  // the module lets go: each wait ends
    EXPECT_TRUE(zutest::waitReturned(ConflictRun(*holder, resource, owner("box/q"), -1).wait()));
  module.waitIdle();
  EXPECT_EQ(module.calls(), (std::vector<std::string>{"Head", "LArm"}));
}

TEST(StrongOwner, ARefusedNotificationPrintsOneLineAndTheWaitGoesOnToItsLimit) {
  auto broker = boost::make_shared<ZU::ZUBroker>();
  auto intModule = boost::make_shared<ZU::ZUModule>("i-module");
  intModule->bindMethod<int>("__onResource__", [](const int&) {});
  broker->addModule(intModule);
  auto holder = owner("i");
  holder->setParentBroker(broker);

  testing::internal::CaptureStdout();
  EXPECT_TRUE(waitFailed(ConflictRun(*holder, "R", owner("q"), 0).wait(), kTimedOut));
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
  EXPECT_THAT(out, ::testing::HasSubstr("When trying to call module 'i-module' function "
                                        "'__onResource__' parameter #1 is of type string "
                                        "instead of type int"));
  EXPECT_EQ(intModule->startedTasks(), 0);
}

}  // namespace
