// The manager over the real library: requests and their outcomes, cancels,
// modules that close, and refused calls.

#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuresourcelist.h>
#include <zuresource/zuresourcestate.h>
#include <zuresource/zuwaitregistry.h>

#include <zumanager/zumanager.h>

#include "support/threads.h"

namespace {

using ZU::ZUAcquireRequest;
using ZU::ZUAcquireResult;
using ZU::ZUManager;
using ZU::ZUManagerError;
using Kind = ZUAcquireResult::Kind;
using Stop = ZUAcquireResult::Stop;
const std::string kFree = ZU::contract::kPlaceholderName;

/// Head and Arm in the group Body; the state Standing.
std::vector<boost::shared_ptr<ZU::ZUResource>> robot() {
  auto body = boost::make_shared<ZU::ZUResourceList>("Body", nullptr);
  body->addResource(boost::make_shared<ZU::ZUResource>("Head", nullptr));
  body->addResource(boost::make_shared<ZU::ZUResource>("Arm", nullptr));
  return {body, boost::make_shared<ZU::ZUResourceState>("Standing", nullptr)};
}

class ManagerTest : public ::testing::Test {
 protected:
  /// Opens module `module` with owner `owner`. A module that `letsGo` gives
  /// up what is wanted of it as soon as it is told.
  void open(const std::string& module, const std::string& owner, bool letsGo) {
    manager.openModule(module, [this, letsGo](const ZU::ZUNotice& n) {
      {
        std::lock_guard<std::mutex> lock(mutex);
        notices.push_back(n.resource + " of " + n.owner);
      }
      if (letsGo && !n.owner.empty()) manager.release(n.owner, n.resource);
    });
    manager.makeOwner(module, owner);
  }
  ZUAcquireResult take(const std::string& owner, const std::string& resource, int timeout = -1,
                       std::vector<std::string> noWait = {}) {
    return manager.acquire(ZUAcquireRequest{owner, resource, timeout, std::move(noWait)});
  }
  /// Starts a request in a thread of its own; `waiting` counts down once it
  /// waits behind somebody.
  std::future<ZUAcquireResult> start(const std::string& owner, const std::string& resource,
                                     zutest::Latch& waiting, ZU::ZUAcquireCancel* cancel = nullptr,
                                     int timeout = -1) {
    return std::async(std::launch::async, [=, &waiting] {
      return manager.acquire(ZUAcquireRequest{owner, resource, timeout, {}},
                             [&waiting](const ZU::ZUWaitReport&) { waiting.countDown(); },
                             cancel);
    });
  }
  std::string holder(const std::string& leaf) { return manager.holdersOf(leaf).at(0); }

  std::mutex mutex;
  std::vector<std::string> notices;  // guarded by mutex
  ZUManager manager{robot()};  // last: it ends its modules' notices first
};

// How a request ends, and who holds what afterwards. Arm is held by "other"
// before the request unless the row says it is free.
TEST_F(ManagerTest, RequestOutcomes) {
  struct Row {
    const char* name;
    bool armHeld;
    bool holderLetsGo;
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
      {"free", false, false, "Arm", -1, {}, Kind::Granted, "", "", kFree, "a"},
      {"busy, on the no-wait list", true, false, "Body", -1, {"Arm"}, Kind::NotObtained, "Arm", "",
       "a", "other"},
      {"holder ignores, time limit", true, false, "Arm", 0, {}, Kind::Failed, timedOut, "other",
       kFree, "other"},
      {"holder lets go when told", true, true, "Body", -1, {}, Kind::Granted, "", "other", "a", "a"},
      {"group member times out", true, false, "Body", 0, {}, Kind::Failed, timedOut, "other",
       kFree, "other"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ZUManager m(robot());
    std::string behind;
    m.openModule("A", nullptr);
    m.makeOwner("A", "a");
    m.openModule("O", [&m, &row](const ZU::ZUNotice& n) {
      if (row.holderLetsGo) m.release(n.owner, n.resource);
    });
    m.makeOwner("O", "other");
    if (row.armHeld) {
      ASSERT_EQ(m.acquire({"other", "Arm", -1, {}}).kind, Kind::Granted);
    }
    ZUAcquireResult r = m.acquire({"a", row.resource, row.timeout, row.noWait},
                                  [&behind](const ZU::ZUWaitReport& w) { behind = w.holder; });
    EXPECT_EQ(r.kind, row.kind);
    EXPECT_EQ(r.kind == Kind::NotObtained ? r.notObtained.at(0) : r.error, row.detail);
    EXPECT_EQ(behind, row.waitedBehind);
    EXPECT_EQ(m.holdersOf("Head").at(0), row.head);
    EXPECT_EQ(m.holdersOf("Arm").at(0), row.arm);
  }
}

// A cancel ends the request with the stop error; the owner keeps nothing the
// request got, no wait stays recorded, and its next request goes through.
TEST_F(ManagerTest, CancelledRequests) {
  struct Row {
    const char* name;
    const char* resource;
    bool beforeStart;
  };
  const std::vector<Row> rows = {
      {"before it starts", "Body", true},
      {"while it waits, holding part of the group", "Body", false},
      {"while it waits for an activation", "Standing", false},
  };
  open("O", "other", false);
  open("A", "a", false);
  ASSERT_EQ(take("other", "Arm").kind, Kind::Granted);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ZU::ZUAcquireCancel cancel;
    zutest::Latch waiting;
    if (row.beforeStart) cancel.cancel();
    auto result = start("a", row.resource, waiting, &cancel);
    if (!row.beforeStart) {
      ASSERT_TRUE(waiting.waitFor(5000));
      cancel.cancel();
    }
    ZUAcquireResult r = result.get();
    EXPECT_EQ(r.kind, Kind::Failed);
    EXPECT_EQ(r.error, ZU::contract::kStopWhileWaiting);
    EXPECT_EQ(r.stop, Stop::Cancelled);
    EXPECT_EQ(holder("Head"), kFree);
    EXPECT_EQ(holder("Arm"), "other");
    EXPECT_TRUE(manager.holdersOf("Standing").empty());
    EXPECT_TRUE(ZU::ZUWaitRegistry::snapshot().empty());
    EXPECT_EQ(take("a", "Head").kind, Kind::Granted);
    manager.release("a", "Head");
  }
}

// The library leaves an owner's release flag set after it lets go, which would
// fail its next wait after one polling period; each request has its own.
TEST_F(ManagerTest, OwnerAsksAgainAfterReleasing) {
  open("A", "a", false);
  open("O", "other", true);
  ASSERT_EQ(take("a", "Arm").kind, Kind::Granted);
  manager.release("a", "Arm");
  ASSERT_EQ(take("other", "Arm").kind, Kind::Granted);
  ZUAcquireResult r = take("a", "Arm", 10);
  EXPECT_EQ(r.kind, Kind::Granted) << r.error;
  EXPECT_EQ(holder("Arm"), "a");
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(notices, std::vector<std::string>{"Arm of other"});
}

TEST_F(ManagerTest, ClosingTheHoldersModuleServesTheWaiter) {
  open("O", "other", false);
  open("A", "a", false);
  ASSERT_EQ(take("other", "Body").kind, Kind::Granted);
  zutest::Latch waiting;
  auto result = start("a", "Arm", waiting);
  ASSERT_TRUE(waiting.waitFor(5000));
  manager.closeModule("O");
  ZUAcquireResult r = result.get();
  EXPECT_EQ(r.kind, Kind::Granted) << r.error;
  EXPECT_EQ(holder("Arm"), "a");
  EXPECT_EQ(holder("Head"), kFree);
  EXPECT_FALSE(manager.hasModule("O"));
  EXPECT_EQ(manager.moduleOf("other"), "");
}

TEST_F(ManagerTest, ClosingTheWaitersModuleStopsItsWait) {
  open("O", "other", false);
  open("A", "a", false);
  ASSERT_EQ(take("other", "Arm").kind, Kind::Granted);
  zutest::Latch waiting;
  auto result = start("a", "Body", waiting);
  ASSERT_TRUE(waiting.waitFor(5000));
  ASSERT_EQ(holder("Head"), "a");
  manager.closeModule("A");
  ZUAcquireResult r = result.get();
  EXPECT_EQ(r.error, ZU::contract::kStopWhileWaiting);
  EXPECT_EQ(r.stop, Stop::ModuleClosed);
  EXPECT_EQ(holder("Head"), kFree);
  EXPECT_EQ(holder("Arm"), "other");
  EXPECT_TRUE(ZU::ZUWaitRegistry::snapshot().empty());
  // The name is free again, for a module of any name.
  open("A2", "a", false);
  EXPECT_EQ(take("a", "Head").kind, Kind::Granted);
}

// A resource handed down goes back to the owner that handed it down: when the
// descendant's module closes, and after the ancestor made other requests
// meanwhile (the manager must keep what it may be given back).
TEST_F(ManagerTest, HandDownsGoBack) {
  for (bool closeModule : {false, true}) {
    SCOPED_TRACE(closeModule ? "descendant's module closes" : "descendant releases");
    ZUManager m(robot());
    m.openModule("Box", nullptr);
    m.makeOwner("Box", "box");
    m.openModule("Arm", nullptr);
    m.makeOwner("Arm", "box/arm");
    ASSERT_EQ(m.acquire({"box", "Arm", -1, {}}).kind, Kind::Granted);
    ASSERT_EQ(m.acquire({"box/arm", "Arm", -1, {}}).kind, Kind::Granted);
    EXPECT_EQ(m.holdersOf("Arm").at(0), "box/arm");
    for (int i = 0; i < 3; ++i) {
      ASSERT_EQ(m.acquire({"box", "Head", -1, {}}).kind, Kind::Granted);
      m.release("box", "Head");
    }
    if (closeModule)
      m.closeModule("Arm");
    else
      m.release("box/arm", "Arm");
    EXPECT_EQ(m.holdersOf("Arm").at(0), "box");
    m.release("box", "Arm");
    EXPECT_EQ(m.holdersOf("Arm").at(0), kFree);
  }
}

// A tree as a file declares it: groups, an activated state, the policies.
TEST(ManagerOfATree, BuildsWhatTheFileDeclares) {
  ZU::ZUResourceTree tree = ZU::parseResourceTree(R"({"resources": [
    {"name": "Body", "kind": "group", "members": ["Head", "Legs"], "graceMs": 100},
    {"name": "Head"}, {"name": "Legs", "fallback": "posture"},
    {"name": "Standing", "kind": "state", "activated": true}]})",
                                                  "t.json");
  ZUManager m(tree);
  EXPECT_EQ(m.leavesOf("Body"), (std::vector<std::string>{"Head", "Legs"}));
  EXPECT_EQ(m.roots().size(), 2u);
  m.openModule("P", nullptr);
  m.makeOwner("P", "posture");
  EXPECT_EQ(m.acquire({"posture", "Standing", 0, {}}).kind, Kind::Granted);  // activated
  auto policies = ZUManager::policiesOf(tree);
  EXPECT_EQ(policies.at("Body").graceMs, 100);
  EXPECT_EQ(policies.at("Legs").fallback, "posture");
  EXPECT_EQ(policies.at("Legs").graceMs, ZU::ZUResourcePolicy::kDefaultGraceMs);
}

// Refused calls change nothing.
TEST_F(ManagerTest, RefusedCalls) {
  using Code = ZUManagerError::Code;
  open("A", "a", false);
  open("O", "other", false);
  ASSERT_EQ(take("other", "Arm").kind, Kind::Granted);
  struct Row {
    const char* name;
    std::function<void()> call;
    Code code;
  };
  const std::vector<Row> rows = {
      {"unknown owner", [&] { take("nobody", "Arm"); }, Code::UnknownOwner},
      {"empty owner", [&] { take("", "Arm"); }, Code::EmptyName},
      {"unknown resource", [&] { take("a", "Tail"); }, Code::UnknownResource},
      {"unknown no-wait name", [&] { take("a", "Head", -1, {"Tail"}); }, Code::UnknownResource},
      {"owner of another module", [&] { manager.makeOwner("A", "other"); }, Code::OtherModule},
      {"owner in no module", [&] { manager.makeOwner("Z", "z"); }, Code::UnknownModule},
      {"owner named like a state", [&] { manager.makeOwner("A", "Standing"); },
       Code::BadArgument},
      {"owner name of 1 MB", [&] { manager.makeOwner("A", std::string(1 << 20, 'x')); },
       Code::BadArgument},
      {"module opened twice", [&] { manager.openModule("A", nullptr); }, Code::ModuleExists},
      {"state of a plain resource", [&] { manager.setState("Arm", true); }, Code::NotAState},
      {"release by nobody", [&] { manager.release("nobody", "Arm"); }, Code::UnknownOwner},
  };
  const std::string before = manager.statusText();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    try {
      row.call();
      ADD_FAILURE() << "not refused";
    } catch (const ZUManagerError& e) {
      EXPECT_EQ(e.code(), row.code) << e.what();
    }
    EXPECT_EQ(manager.statusText(), before);
    EXPECT_EQ(manager.moduleOf("other"), "O");
  }
}

}  // namespace
