// The manager's policies over the real library: priority with a grace
// period, force-release by an operator, a fallback holder.

#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuresourcelist.h>
#include <zuresource/zuresourcestate.h>

#include <zumanager/zumanager.h>

#include "support/observed.h"
#include "support/threads.h"

namespace {

using ZU::ZUAcquireRequest;
using ZU::ZUAcquireResult;
using ZU::ZUManager;
using ZU::ZUNotice;
using Kind = ZUAcquireResult::Kind;
const std::string kFree = ZU::contract::kPlaceholderName;
const int kGraceMs = 300;

/// Head and Arm in the group Body; Legs; the state Standing.
std::vector<boost::shared_ptr<ZU::ZUResource>> robot() {
  auto body = boost::make_shared<ZU::ZUResourceList>("Body", nullptr);
  body->addResource(boost::make_shared<ZU::ZUResource>("Head", nullptr));
  body->addResource(boost::make_shared<ZU::ZUResource>("Arm", nullptr));
  return {body, boost::make_shared<ZU::ZUResource>("Legs", nullptr),
          boost::make_shared<ZU::ZUResourceState>("Standing", nullptr)};
}

/// A manager whose modules keep their notices, and let go of what is wanted
/// when they are set to.
class Stage {
 public:
  explicit Stage(std::map<std::string, ZU::ZUResourcePolicy> policies = {})
      : manager(robot(), policies) {}

  void open(const std::string& module, const std::string& owner, int priority, bool letsGo) {
    manager.openModule(module, [this, module, letsGo](const ZUNotice& n) {
      {
        std::lock_guard<std::mutex> lock(mutex);
        notices.push_back(describe(module, n));
      }
      if (letsGo && n.kind == ZUNotice::Kind::Wanted && !n.owner.empty())
        manager.release(n.owner, n.resource);
    });
    manager.makeOwner(module, owner, priority);
  }
  ZUAcquireResult take(const std::string& owner, const std::string& resource, int timeout,
                       std::optional<int> priority = std::nullopt) {
    ZUAcquireRequest r{owner, resource, timeout, {}};
    r.priority = priority;
    return manager.acquire(r);
  }
  /// The lost notices so far, as "module: owner lost resource to by".
  std::vector<std::string> lost() {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> out;
    for (const std::string& n : notices)
      if (n.find(" lost ") != std::string::npos) out.push_back(n);
    return out;
  }
  std::string holder(const std::string& leaf) { return manager.holdersOf(leaf).at(0); }
  /// Waits (generously) until `count` lost notices came.
  bool noticed(std::size_t count) {
    zutest::Stopwatch watch;
    while (lost().size() < count) {
      if (watch.elapsedMs() > 3000 + zutest::lateToleranceMs()) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }
  /// Waits (generously) until `leaf` is held by `owner`.
  bool becomes(const std::string& leaf, const std::string& owner) {
    zutest::Stopwatch watch;
    while (holder(leaf) != owner) {
      if (watch.elapsedMs() > 3000 + zutest::lateToleranceMs()) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }

  std::mutex mutex;
  std::vector<std::string> notices;  // guarded by mutex
  ZUManager manager;  // last: it ends its modules' notices first

 private:
  static std::string describe(const std::string& module, const ZUNotice& n) {
    if (n.kind == ZUNotice::Kind::Wanted) return module + ": " + n.resource + " wanted";
    return module + ": " + n.owner + " lost " + n.resource + " to " + n.by;
  }
};

// A holder of lower priority that does not let go within the grace period
// loses what the request waits for; anything else waits as the library does.
// Afterwards the owner that lost asks again, and waits like anyone.
TEST(Preemption, Table) {
  struct Row {
    const char* name;
    int holderPriority, requestPriority;
    bool holderLetsGo;
    const char* holds;      // what the holder takes first
    const char* requested;  // what the requester asks for
    Kind kind;
    std::vector<std::string> lost;
    std::string head, arm;  // holders afterwards
  };
  const std::vector<std::string> armLost = {"H: h lost Arm to r"};
  const std::vector<Row> rows = {
      {"higher priority, holder ignores", 0, 5, false, "Arm", "Arm", Kind::Granted, armLost, kFree,
       "r"},
      {"higher priority, holder lets go in time", 0, 5, true, "Arm", "Arm", Kind::Granted, {},
       kFree, "r"},
      {"equal priority", 3, 3, false, "Arm", "Arm", Kind::Failed, {}, kFree, "h"},
      {"lower priority", 3, 1, false, "Arm", "Arm", Kind::Failed, {}, kFree, "h"},
      {"a member of a group is taken alone", 0, 5, false, "Body", "Arm", Kind::Granted, armLost,
       "h", "r"},
      {"a group waiting on one member", 0, 5, false, "Arm", "Body", Kind::Granted, armLost, "r",
       "r"},
      {"a state is never taken", 0, 5, false, "Standing", "Standing", Kind::Failed, {}, kFree,
       kFree},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    zutest::Observed<zutest::EventKeeper> events;
    Stage s({{"Body", {kGraceMs, ""}}});
    s.open("H", "h", row.holderPriority, row.holderLetsGo);
    s.open("R", "r", 0, true);
    if (std::string(row.holds) == "Standing") {
      s.manager.setState("Standing", true);
      ASSERT_EQ(s.take("h", "Standing", 0).kind, Kind::Granted);
      s.manager.setState("Standing", false);
    } else {
      ASSERT_EQ(s.take("h", row.holds, 0).kind, Kind::Granted);
    }
    // Twice the grace period and more: a preemption comes well before it.
    ZUAcquireResult r = s.take("r", row.requested, 2, row.requestPriority);
    EXPECT_EQ(r.kind, row.kind) << r.error;
    EXPECT_TRUE(s.noticed(row.lost.size()));
    EXPECT_EQ(s.lost(), row.lost);
    EXPECT_EQ(s.holder("Head"), row.head);
    EXPECT_EQ(s.holder("Arm"), row.arm);
    std::vector<ZU::ZUEvent> lost = events->events(ZU::ZUEvent::Kind::Lost);
    ASSERT_EQ(lost.size(), row.lost.size());
    if (!lost.empty()) {
      EXPECT_EQ(lost[0].owner, "h");
      EXPECT_EQ(lost[0].holder, "r");
      EXPECT_EQ(lost[0].resource, "Arm");
    }
    if (row.lost.empty()) continue;
    // The release flag the library left on the holder does not fail the
    // next request of the same owner: it waits, and r lets go when told.
    ZUAcquireResult again = s.take("h", "Arm", 5);
    EXPECT_EQ(again.kind, Kind::Granted) << again.error;
    EXPECT_EQ(s.holder("Arm"), "h");
  }
}

TEST(ForceRelease, TheOperatorTakesEveryMemberAndTheWaiterIsServed) {
  Stage s;
  s.open("H", "h", 100, false);
  s.open("W", "w", 0, false);
  ASSERT_EQ(s.take("h", "Body", 0).kind, Kind::Granted);
  zutest::Latch waiting;
  auto waiter = std::async(std::launch::async, [&] {
    return s.manager.acquire({"w", "Arm", 10, {}},
                             [&waiting](const ZU::ZUWaitReport&) { waiting.countDown(); });
  });
  ASSERT_TRUE(waiting.waitFor(5000));
  EXPECT_EQ(s.manager.forceRelease("operator", "h", "Body"),
            (std::vector<std::string>{"Head", "Arm"}));
  EXPECT_EQ(waiter.get().kind, Kind::Granted);
  EXPECT_EQ(s.holder("Head"), kFree);
  EXPECT_EQ(s.holder("Arm"), "w");
  ASSERT_TRUE(s.noticed(2));
  EXPECT_EQ(s.lost(),
            (std::vector<std::string>{"H: h lost Head to operator", "H: h lost Arm to operator"}));
}

// The fallback owner holds the legs whenever nobody else does, and yields at
// once to any request, even one of lower priority.
TEST(Fallback, HoldsWhenFreeAndYieldsAtOnce) {
  Stage s({{"Legs", {10 * 1000, "posture"}}});
  s.open("Posture", "posture", 0, false);
  s.open("Walk", "walker", -5, false);
  ASSERT_TRUE(s.becomes("Legs", "posture"));
  EXPECT_NE(s.manager.statusText().find("Legs -> Posture"), std::string::npos)
      << s.manager.statusText();
  // Far sooner than the grace period of ten seconds.
  ZUAcquireResult r = s.take("walker", "Legs", 5);
  EXPECT_EQ(r.kind, Kind::Granted) << r.error;
  EXPECT_EQ(s.holder("Legs"), "walker");
  s.manager.release("walker", "Legs");
  EXPECT_TRUE(s.becomes("Legs", "posture"));
  ASSERT_TRUE(s.noticed(1));
  s.manager.closeModule("Posture");
  EXPECT_EQ(s.holder("Legs"), kFree);
  EXPECT_EQ(s.lost(), std::vector<std::string>{"Posture: posture lost Legs to walker"});
}

TEST(Policies, RefusedWhenTheyCannotApply) {
  const std::vector<std::map<std::string, ZU::ZUResourcePolicy>> refused = {
      {{"Tail", {}}},
      {{"Arm", {-1, ""}}},
      {{"Arm", {ZU::ZUResourcePolicy::kMaxGraceMs + 1, ""}}},
      {{"Standing", {500, "posture"}}},
  };
  for (const auto& policies : refused)
    EXPECT_THROW(ZUManager(robot(), policies), ZU::ZUManagerError);
}

}  // namespace
