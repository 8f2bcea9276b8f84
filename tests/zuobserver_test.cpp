// Observers: the decisions each scenario reports, and the observer's own
// contract (no lock held, exceptions contained, removal while events flow).
#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <zuresource/zuobserver.h>
#include <zuresource/zusnapshot.h>

#include "support/asyncrun.h"
#include "support/observed.h"
#include "support/resourcehelpers.h"
#include "support/threads.h"

namespace {

using ZU::ZUEvent;
using Kind = ZU::ZUEvent::Kind;
using zutest::GuardedThread;
using zutest::makeOwner;
using zutest::makePlain;
using zutest::waitUntil;

using Recording = zutest::Observed<zutest::EventKeeper>;

/// "kind owner resource [detail]" of each event but Requested, in sequence
/// order; detail: the grant, the cause, the holder waited on or the parent.
std::vector<std::string> decisions(const std::vector<ZUEvent>& events) {
  std::vector<std::string> lines;
  for (const ZUEvent& e : events) {
    if (e.kind == Kind::Requested) continue;
    std::string line = std::string(ZU::kindName(e.kind)) + " " + e.owner + " " + e.resource;
    if (e.kind == Kind::Granted) line += std::string(" ") + ZU::grantName(e.grant);
    if (e.kind == Kind::Stopped) line += std::string(" ") + ZU::causeName(e.cause);
    if (!e.parent.empty()) line += " " + e.parent;
    if (e.kind == Kind::Waiting || e.kind == Kind::NotObtained) line += " " + e.holder;
    if (e.kind == Kind::DeadlockFormed || e.kind == Kind::DeadlockBroken)
      line += " " + std::to_string(e.waits.size());
    lines.push_back(line);
  }
  return lines;
}

const std::vector<std::string> kAll;  // the no-wait list that waits for everything

// The waits a scenario runs in threads of their own.
using Waits = std::deque<zutest::WaitForRun>;

struct Scenario {
  const char* name;
  std::function<void(Waits&)> run;
  std::vector<std::string> decisions;
};

// Each scenario waits until a wait is seen before it goes on, so that the
// order of the decisions is fixed.
bool waiting(const ZU::ZUOwner& holder) { return holder.copyWaiters().size() > 0; }

/// Arm held by a, and b's wait for it under way in `waits`.
auto heldAndWaitedOn(Waits& waits) {
  auto r = makePlain("Arm");
  auto a = makeOwner("a", "A"), b = makeOwner("b", "B");
  r->waitFor(a, "", -1, kAll);
  waits.emplace_back(r, b, -1);
  EXPECT_TRUE(waitUntil([&] { return waiting(*a); }));
  return std::make_tuple(r, a, b);
}

const Scenario kScenarios[] = {
    {"free, held again, busy for another, released, switched",
     [](auto&) {
       auto r = makePlain("Arm");
       auto a = makeOwner("a", "A"), b = makeOwner("b", "B");
       r->waitFor(a, "", -1, kAll);
       r->waitFor(a, "", -1, kAll);
       r->waitFor(b, "", -1, {"Arm"});
       r->release(a);
       r->switchOwner(b, "", 0);
     },
     {"granted a Arm wasFree", "granted a Arm alreadyHeld", "notObtained b Arm a", "released a Arm",
      "switched b Arm"}},
    {"handed down and back",
     [](auto&) {
       auto r = makePlain("Arm");
       auto a = makeOwner("a", "A"), child = makeOwner("a/x", "X");
       r->waitFor(a, "", -1, kAll);
       r->waitFor(child, "", -1, kAll);
       const ZU::ZUSnapshot snapshot = ZU::takeSnapshot({r});
       EXPECT_EQ(snapshot.resources[0].holders, std::vector<std::string>{"a/x"});
       EXPECT_EQ(snapshot.owners[0].parentOwners,
                 (std::vector<std::pair<std::string, std::string>>{{"Arm", "a"}}));
       r->release(child);
     },
     {"granted a Arm wasFree", "granted a/x Arm handedDown a", "handedBack a/x Arm a"}},
    {"waits until the holder lets go",
     [](auto& waits) {
       auto [r, a, b] = heldAndWaitedOn(waits);
       const ZU::ZUSnapshot snapshot = ZU::takeSnapshot({r});
       ASSERT_EQ(snapshot.waits.size(), 1u);
       EXPECT_EQ(snapshot.waits[0].waiter + ">" + snapshot.waits[0].holder, "b>a");
       EXPECT_EQ(snapshot.owners.size(), 2u);  // the holder, then the waiter
       r->release(a);
       waits.back().wait();
     },
     {"granted a Arm wasFree", "waiting b Arm a", "released a Arm", "granted b Arm wasFree"}},
    {"stopped by the manager, or already stopped",
     [](auto& waits) {
       auto [r, a, b] = heldAndWaitedOn(waits);
       r->release(b);  // b does not hold it: its wait ends
       waits.back().wait();
       EXPECT_THROW(r->waitFor(b, "", -1, kAll), ZU::ZUError);  // its flag is still set
     },
     {"granted a Arm wasFree", "waiting b Arm a", "stopped b Arm managerStop", "waiting b Arm a",
      "stopped b Arm ownRelease"}},
    {"state: waits for activation, deactivated",
     [](auto& waits) {
       auto s = boost::make_shared<ZU::ZUResourceState>("Standing", nullptr);
       auto a = makeOwner("a", "A");
       waits.emplace_back(s, a, -1);
       ASSERT_TRUE(waitUntil([&] { return waiting(*s->stateOwner); }));
       // The waiter lists itself a moment before it reports its wait; a slow
       // machine (qemu) could otherwise see the activation reported first.
       std::this_thread::sleep_for(std::chrono::milliseconds(200));
       s->setState(true);
       waits.back().wait();
       s->setState(false);
       s->release(a);
     },
     {"waiting a Standing Standing", "stateActivated  Standing",
      "granted a Standing stateActivated", "stateDeactivated  Standing",
      "waiting Standing Standing a", "timedOut Standing Standing", "released a Standing"}},
    {"group: a member times out, the owner is given back",
     [](auto&) {
       auto arm = makePlain("Arm"), leg = makePlain("Leg");
       auto body = zutest::makeGroup("Body", {arm, leg});
       auto a = makeOwner("a", "A"), b = makeOwner("b", "B");
       leg->waitFor(b, "", -1, kAll);
       EXPECT_THROW(body->waitFor(a, "", 0, kAll), ZU::ZUError);
     },
     {"granted b Leg wasFree", "granted a Arm wasFree", "waiting a Leg b", "timedOut a Leg",
      "released a Arm", "givenBack a Body"}},
    {"a wait whose holder no longer holds is reported stale",
     [](auto& waits) {
       auto s = boost::make_shared<ZU::ZUResourceState>("Standing", nullptr);
       auto a = makeOwner("a", "A");
       waits.emplace_back(s, a, -1);
       ASSERT_TRUE(waitUntil([&] { return waiting(*s->stateOwner); }));
       s->state = true;  // activated without freeing its owner: nothing ends the wait
       ASSERT_TRUE(waitUntil([&] { return !ZU::takeSnapshot({s}).staleWaits.empty(); }));
       s->stateOwner->freeResource();
       waits.back().wait();
     },
     {"waiting a Standing Standing", "staleWait a Standing", "granted a Standing stateActivated"}},
    {"two owners wait on each other: the cycle is reported once, then broken",
     [](auto& waits) {
       auto r1 = makePlain("R1"), r2 = makePlain("R2");
       auto a = makeOwner("a", "A"), b = makeOwner("b", "B");
       r1->waitFor(a, "", -1, kAll);
       r2->waitFor(b, "", -1, kAll);
       waits.emplace_back(r2, a, -1);
       ASSERT_TRUE(waitUntil([&] { return waiting(*b); }));
       EXPECT_THROW(r1->waitFor(b, "", 1, kAll), ZU::ZUError);  // polls a few times
       r2->release(a);                                          // a's wait ends too
       waits.back().wait();
     },
     {"granted a R1 wasFree", "granted b R2 wasFree", "waiting a R2 b", "waiting b R1 a",
      "deadlockFormed a R2 2", "timedOut b R1", "deadlockBroken a R2 2",
      "stopped a R2 managerStop"}},
};

TEST(Decisions, AreReportedInOrder) {
  for (const Scenario& scenario : kScenarios) {
    SCOPED_TRACE(scenario.name);
    Recording recording;
    Waits waits;
    scenario.run(waits);
    EXPECT_EQ(decisions(recording->events()), scenario.decisions);
    for (const ZUEvent& e : recording->events()) {
      EXPECT_NE(e.sequence, 0u);
      EXPECT_NE(e.thread, std::thread::id());
    }
  }
}

/// Calls back into the library from every event: reports and a snapshot take
/// the locks a decision might hold.
struct CallsBack : ZU::ZUObserver {
  void onEvent(const ZUEvent&) override {
    for (const auto& root : roots) {
      root->httpGet(0);
      root->ownersGet();
      root->isResourceFree();
    }
    ZU::snapshotValue(roots);
    ++calls;
  }
  std::vector<boost::shared_ptr<ZU::ZUResource>> roots;  // set before the first event
  std::atomic<int> calls{0};
};

TEST(ObserverContract, CallsBackIntoTheLibraryWithoutDeadlock) {
  auto arm = makePlain("Arm");
  auto standing = boost::make_shared<ZU::ZUResourceState>("Standing", nullptr);
  auto body = zutest::makeGroup("Body", {arm, standing});
  zutest::Observed<CallsBack> observer;
  observer->roots = {body, arm, standing};
  GuardedThread run([&] {
    auto a = makeOwner("a", "A"), child = makeOwner("a/x", "X");
    standing->setState(true);
    body->waitFor(a, "", -1, kAll);
    body->waitFor(child, "", -1, kAll);
    body->release(child);
    standing->setState(false);  // tells the holders under the holders' lock
    body->release(a);
  });
  ASSERT_TRUE(run.joinFor(20000)) << "an observer calling back deadlocked";
  EXPECT_GT(observer->calls.load(), 5);
}

struct Throws : ZU::ZUObserver {
  void onEvent(const ZUEvent&) override { throw std::runtime_error("observer fault"); }
};

TEST(ObserverContract, ExceptionsAreCountedAndChangeNothing) {
  const std::uint64_t before = ZU::ZUObservers::failures();
  zutest::Observed<Throws> first;
  Recording second;  // registered after the one that throws
  auto r = makePlain("Arm");
  auto a = makeOwner("a", "A"), b = makeOwner("b", "B");
  EXPECT_TRUE(r->waitFor(a, "", -1, kAll).empty());
  EXPECT_EQ(r->waitFor(b, "", -1, {"Arm"}), std::vector<std::string>{"Arm"});
  r->release(a);
  EXPECT_TRUE(r->isResourceFree());
  const std::size_t delivered = second->events().size();
  EXPECT_EQ(delivered, 5u);  // the later observer still gets every event
  EXPECT_EQ(ZU::ZUObservers::failures() - before, delivered);
}

/// Counts its calls; may remove itself from inside its first call.
struct Counting : ZU::ZUObserver {
  void onEvent(const ZUEvent&) override {
    ++calls;
    if (removeSelf.exchange(false)) {
      ZU::ZUObservers::remove(self.lock());  // waits for the other threads' calls
      removedItself = true;
    }
  }
  std::atomic<long> calls{0};
  std::atomic<bool> removeSelf{false};
  std::atomic<bool> removedItself{false};
  boost::weak_ptr<ZU::ZUObserver> self;
};

// Odd rounds: the observer removes itself from inside a call in worker 1
// while worker 2's call to it is in flight; worker 1 waits for worker 2's call
// only (not its own), so worker 2 leaving must wake it even though the count
// of calls in flight falls to 1, not 0 (it once hung there).
TEST(ObserverContract, RemovalWhileEventsFlowEndsEveryDelivery) {
  std::atomic<bool> stop{false};
  std::vector<std::unique_ptr<GuardedThread>> workers;
  for (int t = 0; t < 3; ++t)
    workers.push_back(std::make_unique<GuardedThread>([&stop, t] {
      auto r = makePlain("R" + std::to_string(t));
      auto o = makeOwner("o" + std::to_string(t), "O");
      while (!stop) {
        r->waitFor(o, "", -1, kAll);
        r->release(o);
      }
    }));
  for (int round = 0; round < 200; ++round) {
    auto counting = boost::make_shared<Counting>();
    counting->self = counting;
    counting->removeSelf = round % 2 == 1;  // odd rounds: it removes itself
    ZU::ZUObservers::add(counting);
    ASSERT_TRUE(waitUntil([&] { return counting->calls > 0; }));
    ASSERT_TRUE(round % 2 == 0 || waitUntil([&] { return counting->removedItself.load(); }));
    ZU::ZUObservers::remove(counting);  // false when it removed itself: still safe
    const long after = counting->calls;
    std::this_thread::yield();
    EXPECT_EQ(counting->calls.load(), after) << "a call reached a removed observer";
  }
  stop = true;
  for (auto& w : workers) ASSERT_TRUE(w->joinFor(5000));
  EXPECT_FALSE(ZU::ZUObservers::active());
}

}  // namespace
