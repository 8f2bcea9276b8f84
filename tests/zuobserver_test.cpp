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

// What a test acts on, made fresh for each: a recording of the events, Arm,
// Standing, the owners a and b, and the waits it runs in threads of their own
// (which end first).
struct Stage {
  /// `owner`'s wait for `resource` under way and reported: each scenario waits
  /// for that before it goes on, so that the order of the decisions is fixed.
  void waitOn(boost::shared_ptr<ZU::ZUResource> resource, boost::shared_ptr<ZU::ZUOwner> owner) {
    const std::size_t before = recording->events(Kind::Waiting).size();
    waits.emplace_back(resource, owner, -1);
    EXPECT_TRUE(waitUntil([&] { return recording->events(Kind::Waiting).size() > before; }));
  }

  Recording recording;  // registered before anything is made
  boost::shared_ptr<ZU::ZUResource> arm = makePlain("Arm");
  boost::shared_ptr<ZU::ZUResourceState> standing =
      boost::make_shared<ZU::ZUResourceState>("Standing", nullptr);
  boost::shared_ptr<ZU::ZUOwner> a = makeOwner("a", "A"), b = makeOwner("b", "B");
  std::deque<zutest::WaitForRun> waits;
};

struct Scenario {
  const char* name;
  std::function<void(Stage&)> run;
  std::vector<std::string> decisions;
};

const Scenario kScenarios[] = {
    {"free, held again, busy for another, released, switched",
     [](Stage& s) {
       s.arm->waitFor(s.a, "", -1, kAll);
       s.arm->waitFor(s.a, "", -1, kAll);
       s.arm->waitFor(s.b, "", -1, {"Arm"});
       s.arm->release(s.a);
       s.arm->switchOwner(s.b, "", 0);
     },
     {"granted a Arm wasFree", "granted a Arm alreadyHeld", "notObtained b Arm a", "released a Arm",
      "switched b Arm"}},
    {"handed down and back",
     [](Stage& s) {
       auto child = makeOwner("a/x", "X");
       s.arm->waitFor(s.a, "", -1, kAll);
       s.arm->waitFor(child, "", -1, kAll);
       const ZU::ZUSnapshot snapshot = ZU::takeSnapshot({s.arm});
       EXPECT_EQ(snapshot.resources[0].holders, std::vector<std::string>{"a/x"});
       EXPECT_EQ(snapshot.owners[0].parentOwners,
                 (std::vector<std::pair<std::string, std::string>>{{"Arm", "a"}}));
       s.arm->release(child);
     },
     {"granted a Arm wasFree", "granted a/x Arm handedDown a", "handedBack a/x Arm a"}},
    {"waits until the holder lets go",
     [](Stage& s) {
       s.arm->waitFor(s.a, "", -1, kAll);
       s.waitOn(s.arm, s.b);
       const ZU::ZUSnapshot snapshot = ZU::takeSnapshot({s.arm});
       ASSERT_EQ(snapshot.waits.size(), 1u);
       EXPECT_EQ(snapshot.waits[0].waiter + ">" + snapshot.waits[0].holder, "b>a");
       EXPECT_EQ(snapshot.owners.size(), 2u);  // the holder, then the waiter
       s.arm->release(s.a);
       s.waits.back().wait();
     },
     {"granted a Arm wasFree", "waiting b Arm a", "released a Arm", "granted b Arm wasFree"}},
    {"stopped by the manager, or already stopped",
     [](Stage& s) {
       s.arm->waitFor(s.a, "", -1, kAll);
       s.waitOn(s.arm, s.b);
       s.arm->release(s.b);  // b does not hold it: its wait ends
       s.waits.back().wait();
       EXPECT_THROW(s.arm->waitFor(s.b, "", -1, kAll), ZU::ZUError);  // its flag is still set
     },
     {"granted a Arm wasFree", "waiting b Arm a", "stopped b Arm managerStop", "waiting b Arm a",
      "stopped b Arm ownRelease"}},
    {"state: waits for activation, deactivated",
     [](Stage& s) {
       s.waitOn(s.standing, s.a);
       s.standing->setState(true);
       s.waits.back().wait();
       s.standing->setState(false);
       s.standing->release(s.a);
     },
     {"waiting a Standing Standing", "stateActivated  Standing",
      "granted a Standing stateActivated", "stateDeactivated  Standing",
      "waiting Standing Standing a", "timedOut Standing Standing", "released a Standing"}},
    {"group: a member times out, the owner is given back",
     [](Stage& s) {
       auto leg = makePlain("Leg");
       auto body = zutest::makeGroup("Body", {s.arm, leg});
       leg->waitFor(s.b, "", -1, kAll);
       EXPECT_THROW(body->waitFor(s.a, "", 0, kAll), ZU::ZUError);
     },
     {"granted b Leg wasFree", "granted a Arm wasFree", "waiting a Leg b", "timedOut a Leg",
      "released a Arm", "givenBack a Body"}},
    {"a wait whose holder no longer holds is reported stale",
     [](Stage& s) {
       s.waitOn(s.standing, s.a);
       s.standing->state = true;  // activated without freeing its owner: nothing ends the wait
       ASSERT_TRUE(waitUntil([&] { return !ZU::takeSnapshot({s.standing}).staleWaits.empty(); }));
       s.standing->stateOwner->freeResource();
       s.waits.back().wait();
     },
     {"waiting a Standing Standing", "staleWait a Standing", "granted a Standing stateActivated"}},
    {"two owners wait on each other: the cycle is reported once, then broken",
     [](Stage& s) {
       auto r2 = makePlain("R2");
       s.arm->waitFor(s.a, "", -1, kAll);
       r2->waitFor(s.b, "", -1, kAll);
       s.waitOn(r2, s.a);
       EXPECT_THROW(s.arm->waitFor(s.b, "", 1, kAll), ZU::ZUError);  // polls a few times
       r2->release(s.a);                                             // a's wait ends too
       s.waits.back().wait();
     },
     {"granted a Arm wasFree", "granted b R2 wasFree", "waiting a R2 b", "waiting b Arm a",
      "deadlockFormed a R2 2", "timedOut b Arm", "deadlockBroken a R2 2",
      "stopped a R2 managerStop"}},
};

TEST(Decisions, AreReportedInOrder) {
  for (const Scenario& scenario : kScenarios) {
    SCOPED_TRACE(scenario.name);
    Stage stage;
    scenario.run(stage);
    EXPECT_EQ(decisions(stage.recording->events()), scenario.decisions);
    for (const ZUEvent& e : stage.recording->events())
      EXPECT_TRUE(e.sequence != 0 && e.thread != std::thread::id()) << "an event not stamped";
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
  Stage s;
  auto body = zutest::makeGroup("Body", {s.arm, s.standing});
  zutest::Observed<CallsBack> observer;
  observer->roots = {body, s.arm, s.standing};
  GuardedThread run([&] {
    auto child = makeOwner("a/x", "X");
    s.standing->setState(true);
    body->waitFor(s.a, "", -1, kAll);
    body->waitFor(child, "", -1, kAll);
    body->release(child);
    s.standing->setState(false);  // tells the holders under the holders' lock
    body->release(s.a);
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
  Stage s;  // its recording is registered after the observer that throws
  EXPECT_TRUE(s.arm->waitFor(s.a, "", -1, kAll).empty());
  EXPECT_EQ(s.arm->waitFor(s.b, "", -1, {"Arm"}), std::vector<std::string>{"Arm"});
  s.arm->release(s.a);
  EXPECT_TRUE(s.arm->isResourceFree());
  const std::size_t delivered = s.recording->events().size();
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
