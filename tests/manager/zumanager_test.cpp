// The manager over the real library: requests and their outcomes, cancels,
// modules that close, refused calls, and the policies (priority with a grace
// period, force-release by an operator, a fallback holder).

#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuresourcestate.h>
#include <zuresource/zuwaitregistry.h>

#include <zumanager/zumanager.h>

#include "support/observed.h"
#include "support/resourcehelpers.h"
#include "support/threads.h"

namespace {

using ZU::ZUAcquireResult;
using ZU::ZUManager;
using ZU::ZUNotice;
using Kind = ZUAcquireResult::Kind;
using Stop = ZUAcquireResult::Stop;
const std::string kFree = ZU::contract::kPlaceholderName;
const std::string kStopped = ZU::contract::kStopWhileWaiting;

/// Head and Arm in the group Body; Legs; the state Standing.
std::vector<boost::shared_ptr<ZU::ZUResource>> robot() {
  using namespace zutest;
  return {makeGroup("Body", {makePlain("Head"), makePlain("Arm")}), makePlain("Legs"),
          boost::make_shared<ZU::ZUResourceState>("Standing", nullptr)};
}

/// What a module does when told its resource is wanted.
enum class OnWanted { Keep, LetGo, LetGoThenThrow, CloseItsModule };

/// A manager whose modules keep what they lose ("M: h lost Arm to r").
class Stage {
 public:
  explicit Stage(const std::map<std::string, ZU::ZUResourcePolicy>& policies = {})
      : manager(robot(), policies) {}

  void open(const std::string& module, const std::string& owner, OnWanted onWanted = OnWanted::Keep,
            int priority = 0) {
    manager.openModule(module, [this, module, onWanted](const ZUNotice& n) {
      if (n.kind == ZUNotice::Kind::Lost) {
        std::lock_guard<std::mutex> lock(mutex_);
        lost_.push_back(module + ": " + n.owner + " lost " + n.resource + " to " + n.by);
      }
      if (n.kind != ZUNotice::Kind::Wanted || n.owner.empty() || onWanted == OnWanted::Keep) return;
      if (onWanted == OnWanted::CloseItsModule) return manager.closeModule(module);
      manager.release(n.owner, n.resource);
      if (onWanted == OnWanted::LetGoThenThrow) throw std::runtime_error("handler fails");
    });
    manager.makeOwner(module, owner, priority);
  }
  ZUAcquireResult take(const std::string& owner, const std::string& resource, int timeout = -1,
                       std::vector<std::string> noWait = {}, std::optional<int> priority = {},
                       const ZUManager::WaitHandler& onWait = {}, ZU::ZUAcquireCancel* cancel = {}) {
    ZU::ZUAcquireRequest r{owner, resource, timeout, std::move(noWait)};
    r.priority = priority;
    return manager.acquire(r, onWait, cancel);
  }
  /// Starts a request in a thread of its own; `waiting` counts down once it
  /// waits behind somebody.
  std::future<ZUAcquireResult> start(const std::string& owner, const std::string& resource,
                                     zutest::Latch& waiting, ZU::ZUAcquireCancel* cancel) {
    return std::async(std::launch::async, [=, &waiting] {
      return take(owner, resource, -1, {}, {},
                  [&waiting](const ZU::ZUWaitReport&) { waiting.countDown(); }, cancel);
    });
  }
  std::vector<std::string> lost() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lost_;
  }
  std::string holder(const std::string& leaf) { return manager.holdersOf(leaf).at(0); }
  std::vector<std::string> headAndArm() { return {holder("Head"), holder("Arm")}; }
  /// Waits (generously) until `done` holds.
  static bool eventually(const std::function<bool()>& done) {
    return zutest::waitUntil(done, 3000 + zutest::lateToleranceMs());
  }
  /// What was lost, once `count` notices came (or after a generous wait).
  std::vector<std::string> lostAfter(std::size_t count) {
    eventually([&] { return lost().size() >= count; });
    return lost();
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lost_;  // guarded by mutex_

 public:
  ZUManager manager;  // last: it ends its modules' notices first
};

// How a request of "a" ends while "other" holds Arm, and who holds what
// afterwards.
TEST(Manager, RequestOutcomes) {
  struct Row {
    const char* name;
    OnWanted holder;
    const char* resource;
    int timeout;
    std::vector<std::string> noWait;
    Kind kind;
    std::string detail;  // the error, or the names not obtained
    std::string waitedBehind;
    std::string head, arm;  // holders afterwards
  };
  const std::string timedOut = ZU::contract::waitTimedOut("Arm");
  const std::vector<Row> rows = {
      {"busy, on the no-wait list", OnWanted::Keep, "Body", -1, {"Arm"}, Kind::NotObtained, "Arm",
       "", "a", "other"},
      {"holder lets go when told", OnWanted::LetGo, "Body", -1, {}, Kind::Granted, "", "other",
       "a", "a"},
      {"holder's handler throws after letting go", OnWanted::LetGoThenThrow, "Arm", -1, {},
       Kind::Granted, "", "other", kFree, "a"},
      {"holder's handler closes its own module", OnWanted::CloseItsModule, "Arm", -1, {},
       Kind::Granted, "", "other", kFree, "a"},
      {"holder ignores, a group's time limit", OnWanted::Keep, "Body", 0, {}, Kind::Failed,
       timedOut, "other", kFree, "other"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Stage s;
    s.open("A", "a");
    s.open("O", "other", row.holder);
    ASSERT_EQ(s.take("other", "Arm").kind, Kind::Granted);
    std::string behind;
    ZUAcquireResult r = s.take("a", row.resource, row.timeout, row.noWait, {},
                               [&behind](const ZU::ZUWaitReport& w) { behind = w.holder; });
    EXPECT_EQ(r.kind, row.kind);
    EXPECT_EQ(r.kind == Kind::NotObtained ? r.notObtained.at(0) : r.error, row.detail);
    EXPECT_EQ(behind, row.waitedBehind);
    EXPECT_EQ(s.headAndArm(), (std::vector<std::string>{row.head, row.arm}));
  }
}

// A cancel that comes as the holder lets go: the request either was granted
// and holds Arm, or failed and left Arm free; never a grant nobody keeps.
TEST(Manager, CancelRacingAGrant) {
  Stage s;
  s.open("O", "other");
  s.open("A", "a");
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(s.take("other", "Arm").kind, Kind::Granted);
    ZU::ZUAcquireCancel cancel;
    zutest::Latch waiting;
    auto result = s.start("a", "Arm", waiting, &cancel);
    ASSERT_TRUE(waiting.waitFor(5000));
    s.manager.release("other", "Arm");
    cancel.cancel();
    ZUAcquireResult r = result.get();
    EXPECT_EQ(s.holder("Arm"), r.kind == Kind::Granted ? "a" : kFree) << r.error;
    EXPECT_EQ(r.stop, r.kind == Kind::Granted ? Stop::None : Stop::Cancelled);
    s.manager.release("a", "Arm");
  }
}

// "a" asks (for Body unless the row says otherwise) behind "other", who holds
// Arm at a high priority, and the wait ends: cancelled (before it starts, or
// while it waits), the holder's module closing or an operator's force-release
// serving it, or its own module closing. A stopped request fails with the stop
// error and gives back the member it got; no wait stays recorded; the owner's
// next request goes through (a closed module's owner is gone, its name free for
// a module of any name).
TEST(Manager, EndingAWait) {
  using End = std::function<void(Stage&, ZU::ZUAcquireCancel&)>;
  const End cancel = [](Stage&, ZU::ZUAcquireCancel& c) { c.cancel(); };
  auto close = [](const char* module) {
    return End([module](Stage& s, ZU::ZUAcquireCancel&) { s.manager.closeModule(module); });
  };
  struct Row {
    const char* name;
    const char* resource;
    End end;  // none: cancelled before it starts
    const char* closedOwner;
    Kind kind;
    Stop stop;
    std::string head, arm;  // holders afterwards
    std::vector<std::string> lost;
  };
  const std::vector<Row> rows = {
      {"cancelled before it starts", "Body", {}, "", Kind::Failed, Stop::Cancelled, kFree,
       "other", {}},
      {"cancelled holding part of the group", "Body", cancel, "", Kind::Failed, Stop::Cancelled,
       kFree, "other", {}},
      {"cancelled waiting for an activation", "Standing", cancel, "", Kind::Failed,
       Stop::Cancelled, kFree, "other", {}},
      {"holder's module closes", "Body", close("O"), "other", Kind::Granted, Stop::None, "a", "a",
       {}},
      {"waiter's module closes", "Body", close("A"), "a", Kind::Failed, Stop::ModuleClosed, kFree,
       "other", {}},
      {"force-release of held members", "Body",
       [](Stage& s, ZU::ZUAcquireCancel&) {
         EXPECT_EQ(s.manager.forceRelease("op", "other", "Body"), std::vector<std::string>{"Arm"});
       },
       "", Kind::Granted, Stop::None, "a", "a", {"O: other lost Arm to op"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Stage s;
    s.open("O", "other", OnWanted::Keep, 100);
    s.open("A", "a");
    ASSERT_EQ(s.take("other", "Arm").kind, Kind::Granted);
    ZU::ZUAcquireCancel token;
    zutest::Latch waiting;
    if (!row.end) token.cancel();
    auto result = s.start("a", row.resource, waiting, &token);
    if (row.end) {
      ASSERT_TRUE(waiting.waitFor(5000));
      row.end(s, token);
    }
    ZUAcquireResult r = result.get();
    EXPECT_EQ(r.kind, row.kind);
    EXPECT_EQ(r.error, row.kind == Kind::Failed ? kStopped : "");
    EXPECT_EQ(r.stop, row.stop);
    EXPECT_EQ(s.headAndArm(), (std::vector<std::string>{row.head, row.arm}));
    EXPECT_TRUE(s.manager.holdersOf("Standing").empty());
    EXPECT_TRUE(ZU::ZUWaitRegistry::snapshot().empty());
    EXPECT_EQ(s.lostAfter(row.lost.size()), row.lost);
    std::string next = *row.closedOwner ? row.closedOwner : "a";
    if (*row.closedOwner) {
      EXPECT_EQ(s.manager.moduleOf(next), "");
      s.open("N", next);
    }
    EXPECT_EQ(s.take(next, "Legs").kind, Kind::Granted);
  }
}

// A resource handed down goes back to the owner that handed it down: when the
// descendant's module closes, and after the ancestor made other requests
// meanwhile (the manager must keep what it may be given back).
TEST(Manager, HandDownsGoBack) {
  for (bool closeModule : {false, true}) {
    SCOPED_TRACE(closeModule ? "descendant's module closes" : "descendant releases");
    Stage s;
    s.open("Box", "box");
    s.open("Arm", "box/arm");
    ASSERT_EQ(s.take("box", "Arm").kind, Kind::Granted);
    ASSERT_EQ(s.take("box/arm", "Arm").kind, Kind::Granted);
    EXPECT_EQ(s.holder("Arm"), "box/arm");
    for (int i = 0; i < 3; ++i) {
      ASSERT_EQ(s.take("box", "Head").kind, Kind::Granted);
      s.manager.release("box", "Head");
    }
    closeModule ? s.manager.closeModule("Arm") : s.manager.release("box/arm", "Arm");
    EXPECT_EQ(s.holder("Arm"), "box");
    s.manager.release("box", "Arm");
    EXPECT_EQ(s.holder("Arm"), kFree);
  }
}

// Refused calls and policies change nothing.
TEST(Manager, RefusedCalls) {
  using Code = ZU::ZUManagerError::Code;
  Stage s;
  s.open("A", "a");
  s.open("O", "other");
  ASSERT_EQ(s.take("other", "Arm").kind, Kind::Granted);
  ZUManager& m = s.manager;
  struct Row {
    const char* name;
    std::function<void()> call;
    Code code;
  };
  const std::vector<Row> rows = {
      {"unknown owner", [&] { s.take("nobody", "Arm"); }, Code::UnknownOwner},
      {"empty owner", [&] { s.take("", "Arm"); }, Code::EmptyName},
      {"unknown resource", [&] { s.take("a", "Tail"); }, Code::UnknownResource},
      {"unknown no-wait name", [&] { s.take("a", "Head", -1, {"Tail"}); }, Code::UnknownResource},
      {"owner of another module", [&] { m.makeOwner("A", "other"); }, Code::OtherModule},
      {"owner in no module", [&] { m.makeOwner("Z", "z"); }, Code::UnknownModule},
      {"owner named like a state", [&] { m.makeOwner("A", "Standing"); }, Code::BadArgument},
      {"owner name of 1 MB", [&] { m.makeOwner("A", std::string(1 << 20, 'x')); },
       Code::BadArgument},
      {"module opened twice", [&] { m.openModule("A", nullptr); }, Code::ModuleExists},
      {"state of a plain resource", [&] { m.setState("Arm", true); }, Code::NotAState},
      {"release by nobody", [&] { m.release("nobody", "Arm"); }, Code::UnknownOwner},
      {"policy of no resource", [] { ZUManager(robot(), {{"Tail", {}}}); }, Code::BadArgument},
      {"negative grace", [] { ZUManager(robot(), {{"Arm", {-1, ""}}}); }, Code::BadArgument},
      {"grace over the limit",
       [] { ZUManager(robot(), {{"Arm", {ZU::ZUResourcePolicy::kMaxGraceMs + 1, ""}}}); },
       Code::BadArgument},
      {"fallback of a state", [] { ZUManager(robot(), {{"Standing", {500, "posture"}}}); },
       Code::BadArgument},
  };
  const std::string before = m.statusText();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    try {
      row.call();
      ADD_FAILURE() << "not refused";
    } catch (const ZU::ZUManagerError& e) {
      EXPECT_EQ(e.code(), row.code) << e.what();
    }
    EXPECT_EQ(m.statusText(), before);
    EXPECT_EQ(m.moduleOf("other"), "O");
  }
}

// A holder of lower priority that does not let go within the grace period
// loses what the request waits for; anything else waits as the library does.
// Afterwards the owner that lost asks again, and waits like anyone.
TEST(Policies, Preemption) {
  struct Row {
    const char* name;
    int holderPriority, requestPriority;
    OnWanted holderDoes;
    const char* holds;      // what the holder takes first
    const char* requested;  // what the requester asks for
    Kind kind;
    std::vector<std::string> lost;
    std::string head, arm;  // holders afterwards
  };
  const std::vector<std::string> armLost = {"H: h lost Arm to r"};
  const OnWanted keep = OnWanted::Keep;
  const std::vector<Row> rows = {
      {"higher priority, holder ignores", 0, 5, keep, "Arm", "Arm", Kind::Granted, armLost, kFree,
       "r"},
      {"higher priority, holder lets go in time", 0, 5, OnWanted::LetGo, "Arm", "Arm",
       Kind::Granted, {}, kFree, "r"},
      {"equal priority", 3, 3, keep, "Arm", "Arm", Kind::Failed, {}, kFree, "h"},
      {"lower priority", 3, 1, keep, "Arm", "Arm", Kind::Failed, {}, kFree, "h"},
      {"a member of a group is taken alone", 0, 5, keep, "Body", "Arm", Kind::Granted, armLost,
       "h", "r"},
      {"a group waiting on one member", 0, 5, keep, "Arm", "Body", Kind::Granted, armLost, "r",
       "r"},
      {"a state is never taken", 0, 5, keep, "Standing", "Standing", Kind::Failed, {}, kFree,
       kFree},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    zutest::Observed<zutest::EventKeeper> events;
    Stage s({{"Body", {300, ""}}});
    s.open("H", "h", row.holderDoes, row.holderPriority);
    s.open("R", "r", OnWanted::LetGo);
    const bool state = std::string(row.holds) == "Standing";
    if (state) s.manager.setState("Standing", true);
    ASSERT_EQ(s.take("h", row.holds, 0).kind, Kind::Granted);
    if (state) s.manager.setState("Standing", false);
    // Twice the grace period and more: a preemption comes well before it.
    ZUAcquireResult r = s.take("r", row.requested, 2, {}, row.requestPriority);
    EXPECT_EQ(r.kind, row.kind) << r.error;
    EXPECT_EQ(s.lostAfter(row.lost.size()), row.lost);
    EXPECT_EQ(s.headAndArm(), (std::vector<std::string>{row.head, row.arm}));
    std::vector<ZU::ZUEvent> lost = events->events(ZU::ZUEvent::Kind::Lost);
    ASSERT_EQ(lost.size(), row.lost.size());
    if (row.lost.empty()) continue;
    EXPECT_EQ(lost[0].owner + " " + lost[0].resource + " " + lost[0].holder, "h Arm r");
    // The release flag the library left on the holder does not fail the
    // next request of the same owner: it waits, and r lets go when told.
    ZUAcquireResult again = s.take("h", "Arm", 5);
    EXPECT_EQ(again.kind, Kind::Granted) << again.error;
    EXPECT_EQ(s.holder("Arm"), "h");
  }
}

// The fallback owner holds the legs whenever nobody else does, and yields at
// once to any request, even one of lower priority.
TEST(Policies, FallbackHoldsWhenFreeAndYieldsAtOnce) {
  Stage s({{"Legs", {10 * 1000, "posture"}}});
  s.open("Posture", "posture");
  s.open("Walk", "walker", OnWanted::Keep, -5);
  const auto postureHoldsLegs = [&s] { return s.holder("Legs") == "posture"; };
  ASSERT_TRUE(Stage::eventually(postureHoldsLegs));
  EXPECT_NE(s.manager.statusText().find("Legs -> Posture"), std::string::npos)
      << s.manager.statusText();
  // Far sooner than the grace period of ten seconds.
  ZUAcquireResult r = s.take("walker", "Legs", 5);
  EXPECT_EQ(r.kind, Kind::Granted) << r.error;
  EXPECT_EQ(s.holder("Legs"), "walker");
  s.manager.release("walker", "Legs");
  EXPECT_TRUE(Stage::eventually(postureHoldsLegs));
  ASSERT_EQ(s.lostAfter(1).size(), 1u);
  s.manager.closeModule("Posture");
  EXPECT_EQ(s.holder("Legs"), kFree);
  EXPECT_EQ(s.lost(), std::vector<std::string>{"Posture: posture lost Legs to walker"});
}

}  // namespace
