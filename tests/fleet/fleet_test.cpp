// Fleet resources between robots of one process and robot processes that are
// killed, frozen or cut off, against real etcd members started by the tests.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <iterator>
#include <memory>
#include <sstream>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <zuresource/zucontract.h>

#include <zufleet/zuresourcefleet.h>
#include <zufleettesting/zuetcdserver.h>
#include <zufleettesting/zutcprelay.h>

#include "support/childprocess.h"
#include "support/observed.h"
#include "support/recordingmodule.h"
#include "support/resourcehelpers.h"
#include "support/threads.h"

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using zutest::errorOf;
using zutest::GuardedThread;
using zutest::waitUntil;

const int kPollMs = ZU::ZUOwnerStrong::kPollPeriodMs;

/// One robot: its broker, an owner whose module records its notifications,
/// its fleet session and its copy of the shared fleet resource "Lift". The
/// session goes first, so that no notification starts while the module goes.
struct Robot {
  boost::shared_ptr<ZU::ZUBroker> broker = boost::make_shared<ZU::ZUBroker>();
  std::unique_ptr<zutest::RecordingModule> module;
  boost::shared_ptr<ZU::ZUOwner> owner;
  boost::shared_ptr<ZU::ZUFleetSession> session;
  boost::shared_ptr<ZU::ZUResourceFleet> lift;

  Robot(const std::string& name, const std::vector<std::string>& endpoints, int ttl = 5)
      : module(std::make_unique<zutest::RecordingModule>(broker, name + "Module")),
        owner(zutest::makeOwner(name, name + "Module")),
        session(boost::make_shared<ZU::ZUFleetSession>(ZU::ZUFleetConfig{endpoints, name, ttl})),
        lift(ZU::ZUResourceFleet::create("Lift", nullptr, session)) {
    owner->setParentBroker(broker);
  }
  std::vector<std::string> take(int timeout, const std::vector<std::string>& noWait = {}) {
    return lift->waitFor(owner, "", timeout, noWait);
  }
  void release() { lift->release(owner); }
  bool waiting() { return lift->httpGet(0).find(" fleet waiting<br />") != std::string::npos; }
  bool holds() { return lift->fencingToken() != 0; }
};

using ObservedLosses = zutest::Observed<zutest::EventKeeper>;

/// The Lost events seen once one was, as "owner resource: reason", the reason
/// without its detail (what failed last, after ": ").
std::vector<std::string> losses(const ObservedLosses& observed) {
  waitUntil([&] { return !observed->events(ZU::ZUEvent::Kind::Lost).empty(); });
  std::vector<std::string> out;
  for (const ZU::ZUEvent& e : observed->events(ZU::ZUEvent::Kind::Lost))
    out.push_back(e.owner + " " + e.resource + ": " + e.reason.substr(0, e.reason.find(": ")));
  return out;
}

long long nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

/// Runs `take(timeout)` of a robot in a thread of its own; `endedMs` is when
/// it returned, by the monotonic clock that robot processes print.
struct Waiter {
  std::optional<ZU::ZUError> error;
  long long endedMs = 0;
  GuardedThread thread;
  Waiter(Robot& robot, int timeout)
      : thread([this, &robot, timeout] {
          error = errorOf([&] { robot.take(timeout); });
          endedMs = nowMs();
        }) {}
};

/// A robot process (fleet_holder) that asks for Lift through `endpoint`.
struct RobotProcess : zutest::ChildProcess {
  RobotProcess(const std::string& endpoint, int ttl, int timeout = 10)
      : ChildProcess(ZUFLEET_HOLDER, {endpoint, std::to_string(ttl), std::to_string(timeout)}) {}
  /// The rest of its first line that starts with `what`, "" when none came
  /// within `ms`.
  std::string await(const std::string& what, int ms = 20000) {
    const std::string text = lineStartingWith(what + " ", std::chrono::milliseconds(ms));
    return text.empty() ? text : text.substr(what.size() + 1);
  }
};

/// The numbers that a robot process's line starts with.
std::vector<long long> numbers(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<long long>(in), std::istream_iterator<long long>()};
}

/// The keys in the fleet's queue of Lift, the newest first.
std::vector<ZU::ZUEtcdKeyValue> queued(const std::vector<std::string>& endpoints) {
  ZU::ZUEtcdClient client(endpoints, 2000);
  const std::string prefix = "/zufleet/Lift/";
  return client.range(prefix, ZU::ZUEtcdClient::prefixEnd(prefix), 0, 0);
}

TEST(Fleet, RobotsAreServedInOrderTheHolderIsToldAndOldTokensAreRefused) {
  ZU::ZUEtcdServer etcd;
  Robot a("a", etcd.endpoints()), b("b", etcd.endpoints()), c("c", etcd.endpoints());
  zutest::Observed<zutest::EventKeeper> observed;
  ASSERT_TRUE(a.take(5).empty());
  const std::int64_t tokenA = a.lift->fencingToken();
  EXPECT_EQ(a.lift->httpGet(0),
            "---Lift -> aModule eStrong null 0 fleet token " + std::to_string(tokenA) + "<br />");

  Waiter waitB(b, 30);
  ASSERT_TRUE(waitUntil([&] { return b.waiting(); }));
  Waiter waitC(c, 30);
  ASSERT_TRUE(waitUntil([&] { return c.waiting(); }));
  // Each robot that queues behind the holder reaches the holder's module.
  EXPECT_TRUE(waitUntil([&] { return a.module->calls().size() == 2; }));
  // A contender brought twice is told of once. Seen under load: a's grant
  // came late, after b had queued and the watch had started; the queue read
  // after the grant and the watch both brought b, and a's module heard of b
  // twice.
  for (const ZU::ZUEtcdKeyValue& kv : queued(etcd.endpoints())) a.lift->contenderArrived(kv);
  EXPECT_EQ(a.module->calls().size(), 2u);

  a.release();
  ASSERT_TRUE(waitUntil([&] { return b.holds(); }));
  EXPECT_TRUE(c.waiting());
  // c queued before b's grant: b's module hears of it as b is served.
  EXPECT_TRUE(waitUntil([&] { return b.module->calls() == std::vector<std::string>{"Lift"}; }));
  const std::int64_t tokenB = b.lift->fencingToken();
  b.release();
  ASSERT_TRUE(waitUntil([&] { return c.holds(); }));
  ASSERT_TRUE(waitB.thread.joinFor(5000) && waitC.thread.joinFor(5000));
  EXPECT_FALSE(waitB.error || waitC.error);
  // Each waiter is seen waiting behind the robot just ahead of it.
  std::vector<std::string> behind;
  for (const ZU::ZUEvent& e : observed->events(ZU::ZUEvent::Kind::Waiting))
    behind.push_back(e.owner + " behind " + e.holder);
  EXPECT_EQ(behind, (std::vector<std::string>{"b behind a", "c behind b"}));

  ZU::ZUFencingGate door;
  EXPECT_TRUE(door.admit(tokenA));
  EXPECT_TRUE(door.admit(tokenB));
  EXPECT_TRUE(door.admit(c.lift->fencingToken()));
  EXPECT_FALSE(door.admit(tokenB)) << "a command with an older grant's token";
}

TEST(Fleet, FailedWaitsEndLikePlainWaitsAndLeaveNothingBehind) {
  ZU::ZUEtcdServer etcd;
  Robot a("a", etcd.endpoints()), b("b", etcd.endpoints());
  Robot nowhere("n", {"http://127.0.0.1:1"});
  ZU::ZUTcpRelay silent(etcd.endpoints()[0]);  // takes connections, never answers
  silent.setMode(ZU::ZUTcpRelay::Mode::Hold);
  Robot mute("m", {silent.endpoint()});
  ASSERT_TRUE(a.take(5).empty());

  struct Row {
    const char* what;
    Robot& robot;
    int timeout;
    std::vector<std::string> noWait;
    bool stop;  // the manager releases the waiting owner
    std::string error;
    long minMs, maxMs;
  };
  const long late = zutest::lateToleranceMs();
  // Each call to etcd waits up to its own time limit.
  const long noAnswerMax = 1000 + mute.session->config().callTimeoutMs + late;
  const Row rows[] = {
      {"time limit", b, 1, {}, false, ZU::contract::waitTimedOut("Lift"), 1000, 1000 + late},
      {"no-wait list", b, 5, {"Lift"}, false, "", 0, late},
      {"stopped", b, 10, {}, true, ZU::contract::kStopWhileWaiting, 500, 500 + kPollMs + late},
      {"connection refused", nowhere, 5, {}, false, "etcd unreachable", 0, late},
      {"no answer", mute, 1, {}, false, "etcd unreachable", 1000, noAnswerMax},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    zutest::Stopwatch watch;
    std::vector<std::string> result;
    GuardedThread stopper([&] {
      if (!row.stop) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
      row.robot.release();
    });
    auto error = errorOf([&] { result = row.robot.take(row.timeout, row.noWait); });
    ASSERT_TRUE(stopper.joinFor(5000));
    EXPECT_GE(watch.elapsedMs(), row.minMs);
    EXPECT_LE(watch.elapsedMs(), row.maxMs);
    EXPECT_EQ(error.has_value(), !row.error.empty());
    EXPECT_THAT(error ? error->getDescription() : "", HasSubstr(row.error));
    EXPECT_EQ(result, row.noWait);
    EXPECT_TRUE(row.robot.lift->isResourceFree());
    EXPECT_EQ(row.robot.lift->httpGet(0), "---Lift<br />");
  }
  // No key was left in the queue: b is served at once after a.
  a.release();
  zutest::Stopwatch watch;
  EXPECT_TRUE(b.take(5).empty());
  EXPECT_LE(watch.elapsedMs(), late);
}

// The race: robot b's owner x waits for the fleet lock while it holds Lift
// locally; b's owner y asks for Lift, x's module is told and releases x, y
// takes Lift locally and joins the robot's wait; a releases and x's wait gets
// the grant. x must not return as if it held Lift: y does.
TEST(Fleet, AnOwnerReleasedWhileItsRobotWaitsLeavesTheGrantToTheLocalOwnerThatTookOver) {
  ZU::ZUEtcdServer etcd;
  Robot a("a", etcd.endpoints()), b("b", etcd.endpoints());
  ASSERT_TRUE(a.take(5).empty());
  Waiter waitX(b, 30);
  ASSERT_TRUE(waitUntil([&] { return b.waiting(); }));
  b.module->onResource([&](const std::string&) { b.release(); });
  auto y = zutest::makeOwner("y", "yModule");
  std::optional<ZU::ZUError> errorY;
  GuardedThread waitY([&] { errorY = errorOf([&] { b.lift->waitFor(y, "", 30, {}); }); });
  ASSERT_TRUE(waitUntil([&] { return b.lift->isResourceOwned("yModule"); }));
  a.release();
  ASSERT_TRUE(waitX.thread.joinFor(10000) && waitY.joinFor(10000));
  ASSERT_TRUE(waitX.error);
  EXPECT_EQ(waitX.error->getDescription(), ZU::contract::kStopWhileWaiting);
  EXPECT_FALSE(errorY);
  EXPECT_TRUE(b.lift->isResourceOwned("yModule"));
  EXPECT_TRUE(b.holds());
}

// A holder process that etcd hears from no more (its packets held, killed,
// or frozen) hands Lift on within its TTL, etcd's sweep of expired leases
// (every 500 ms) and a polling period. The race, when it is cut off: etcd
// expires its lease TTL after the last renewal reached it and deletes its key;
// b, next in the queue, reads the queue and is granted. The holder must have
// given Lift up before: it counts the TTL from when it sent its last renewal
// that succeeded (not from when the answer came back), less a margin, and a
// guard of its own gives up at that deadline even while a renewal call still
// hangs. The TTL it counts is the one etcd granted (etcd's minimum is 2 s: a
// robot that asked for 1 s counts 2 s). Both robots write the monotonic clock
// of the machine. A frozen holder gives Lift up once it is thawed.
TEST(Fleet, AHolderEtcdHearsFromNoMoreHandsOverWithinItsTtlHavingGivenUpFirst) {
  enum class Cut { Off, Killed, Frozen };
  struct Row {
    const char* what;
    int ttlAsked;  // 0: the default
    long long ttlGrantedMs;
    Cut cut;
  };
  const Row rows[] = {{"cut off, TTL 2 s", 2, 2000, Cut::Off},
                      {"cut off, the default TTL", 0, 5000, Cut::Off},
                      {"cut off, TTL 1 s asked", 1, 2000, Cut::Off},
                      {"killed", 2, 2000, Cut::Killed},
                      {"frozen", 2, 2000, Cut::Frozen}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    ZU::ZUEtcdServer etcd;
    ZU::ZUTcpRelay link(etcd.endpoints()[0]);
    RobotProcess holder(link.endpoint(), row.ttlAsked);
    // The time, the token and the TTL granted.
    const std::vector<long long> held = numbers(holder.await("held"));
    ASSERT_EQ(held.size(), 3u);
    EXPECT_EQ(held[2], row.ttlGrantedMs);

    Robot b("b", etcd.endpoints(), 2);
    Waiter waitB(b, 60);
    ASSERT_TRUE(waitUntil([&] { return b.waiting(); }));
    if (row.cut == Cut::Off)
      link.setMode(ZU::ZUTcpRelay::Mode::Hold);
    else
      holder.signal(row.cut == Cut::Killed ? SIGKILL : SIGSTOP);
    zutest::Stopwatch watch;
    ASSERT_TRUE(waitB.thread.joinFor(30000));
    ASSERT_FALSE(waitB.error) << waitB.error->toString();
    EXPECT_LE(watch.elapsedMs(), row.ttlGrantedMs + kPollMs + 500 + zutest::lateToleranceMs());
    EXPECT_GT(b.lift->fencingToken(), held[1]);
    if (row.cut == Cut::Killed) continue;

    if (row.cut == Cut::Frozen) holder.signal(SIGCONT);
    const std::string lost = holder.await("lost", 5000);
    ASSERT_FALSE(lost.empty()) << "the holder never gave Lift up";
    if (row.cut == Cut::Frozen) continue;  // it learns of the loss one way or another
    EXPECT_LT(numbers(lost)[0], waitB.endedMs) << "b was granted while the holder held";
    EXPECT_THAT(lost, HasSubstr(" lease not renewed within its TTL of " +
                                std::to_string(row.ttlGrantedMs / 1000) + " s"));
  }
}

// The race: robot w waits in the queue behind a, b behind w; w is frozen
// (SIGSTOP) past its TTL, so etcd expires w's lease and deletes its key; a
// releases, b is granted; w is thawed, sees that no key is ahead of its own
// place any more, and would take Lift while b holds it. w must look for its
// own key first: it is gone, so w fails with the fleet-loss error.
TEST(Fleet, AWaiterFrozenPastItsTtlIsNeverGrantedAfterwards) {
  ZU::ZUEtcdServer etcd;
  Robot a("a", etcd.endpoints(), 2), b("b", etcd.endpoints(), 2);
  ASSERT_TRUE(a.take(5).empty());
  RobotProcess w(etcd.endpoints()[0], 2, 60);
  ASSERT_TRUE(waitUntil([&] { return queued(etcd.endpoints()).size() == 2; }, 10000));
  Waiter waitB(b, 60);
  ASSERT_TRUE(waitUntil([&] { return b.waiting(); }));

  w.signal(SIGSTOP);
  ASSERT_TRUE(waitUntil([&] { return queued(etcd.endpoints()).size() == 2; }, 20000))
      << "w's key outlived its lease";
  a.release();
  ASSERT_TRUE(waitB.thread.joinFor(20000));
  ASSERT_FALSE(waitB.error) << waitB.error->toString();
  w.signal(SIGCONT);

  // w writes "held" or "failed", never both.
  const std::string failed = w.await("failed");
  ASSERT_FALSE(failed.empty()) << "w's wait did not end";
  EXPECT_EQ(failed.find(ZU::ZUResourceFleet::kLeaseLost), failed.find(' ') + 1) << failed;
  EXPECT_TRUE(b.holds());
}

// The race: b waits behind a; b's lease is revoked (as etcd expires the lease
// of a robot it did not hear from), which deletes b's key, and a releases at
// once, before b's renewal learns of it: b wakes to a queue with no key ahead
// of its place and must see that its own key is gone too. Once b holds Lift
// with a new lease, losing that one releases b and tells its module and the
// observers.
TEST(Fleet, ARevokedLeaseFailsTheWaitOrReleasesTheHolder) {
  ZU::ZUEtcdServer etcd;
  Robot a("a", etcd.endpoints()), b("b", etcd.endpoints());
  ObservedLosses observed;
  ASSERT_TRUE(a.take(5).empty());
  Waiter waitB(b, 30);
  ASSERT_TRUE(waitUntil([&] { return b.waiting(); }));
  a.session->client().revoke(b.session->lease());
  a.release();
  ASSERT_TRUE(waitB.thread.joinFor(10000));
  ASSERT_TRUE(waitB.error) << "b was granted with no key in the queue";
  EXPECT_THAT(waitB.error->getDescription(), StartsWith(ZU::ZUResourceFleet::kLeaseLost));
  ASSERT_TRUE(b.take(5).empty()) << "a new request takes a new lease";

  a.session->client().revoke(b.session->lease());
  ASSERT_TRUE(waitUntil([&] { return b.lift->isResourceFree(); }));
  EXPECT_EQ(b.lift->fencingToken(), 0);
  EXPECT_TRUE(waitUntil([&] { return b.module->calls() == std::vector<std::string>{"Lift"}; }));
  EXPECT_EQ(losses(observed), std::vector<std::string>{"b Lift: lease expired"});
  EXPECT_TRUE(a.take(5).empty());
  EXPECT_TRUE(b.take(0, {"Lift"}) == std::vector<std::string>{"Lift"});
}

// What a robot cut off from etcd lives through, while the holder gives the
// resource back: an outage (connections refused, or etcd restarted) shorter
// than its lease's TTL less the margin and a third of the TTL (the renewal
// period) is ridden out and the release handed on after it; one longer than
// the TTL less the margin fails every wait of that robot with the fleet-loss
// error, and a new request once etcd is back is served.
TEST(Fleet, AnOutageShorterThanTheLeaseAllowsIsRiddenOutALongerOneFailsTheWaits) {
  struct Row {
    const char* what;
    int ttl;
    int outageMs;
    bool restart;  // etcd stopped and started again, else b's connections refused
    bool lost;
  };
  const Row rows[] = {{"refused for 1 s, TTL 5 s", 5, 1000, false, false},
                      {"refused for 4 s, TTL 2 s", 2, 4000, false, true},
                      {"etcd restarted, TTL 10 s", 10, 0, true, false}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    ZU::ZUEtcdServer etcd;
    ZU::ZUTcpRelay link(etcd.endpoints()[0]);
    Robot a("a", etcd.endpoints(), row.ttl), b("b", {link.endpoint()}, row.ttl);
    ObservedLosses observed;
    ASSERT_TRUE(a.take(5).empty());
    Waiter waitB(b, 60);
    ASSERT_TRUE(waitUntil([&] { return b.waiting(); }));
    using Mode = ZU::ZUTcpRelay::Mode;
    link.setMode(row.restart ? Mode::Pass : Mode::Refuse);
    if (row.restart) etcd.stop(0);
    a.release();
    std::this_thread::sleep_for(std::chrono::milliseconds(row.outageMs));
    if (row.restart) etcd.start(0);
    link.setMode(Mode::Pass);
    ASSERT_TRUE(waitB.thread.joinFor(20000));
    if (row.lost) {
      ASSERT_TRUE(waitB.error);
      EXPECT_THAT(waitB.error->getDescription(), StartsWith(ZU::ZUResourceFleet::kLeaseLost));
      EXPECT_TRUE(b.take(10).empty());
    } else {
      EXPECT_FALSE(waitB.error) << waitB.error->toString();
    }
    EXPECT_TRUE(b.holds());
    EXPECT_TRUE(observed->events(ZU::ZUEvent::Kind::Lost).empty());
  }
}

TEST(Fleet, AClusterKeepsServingWithAMemberKilledAndARobotCutOffLosesItsGrant) {
  ZU::ZUEtcdServer etcd(3);
  const std::vector<std::string> all = etcd.endpoints();
  // a knows member 0 only: killing it cuts a off, while b and c move on.
  Robot a("a", {all[0]}, 2), b("b", all), c("c", all);
  ObservedLosses observed;
  ASSERT_TRUE(a.take(5).empty());
  Waiter waitB(b, 30);
  ASSERT_TRUE(waitUntil([&] { return b.waiting(); }));
  // a hears of b's key through member 0 before that member goes; a slow watch
  // (a sanitizer build) could otherwise miss it.
  ASSERT_TRUE(waitUntil([&] { return a.module->calls().size() == 1; }));
  etcd.kill(0);

  // a gives Lift up once etcd was out of reach for longer than its TTL; the
  // cluster expires a's lease, and b is served.
  ASSERT_TRUE(waitB.thread.joinFor(20000));
  EXPECT_FALSE(waitB.error) << waitB.error->toString();
  EXPECT_EQ(losses(observed),
            std::vector<std::string>{
                "a Lift: lease not renewed within its TTL of 2 s less a margin of 200 ms"});
  EXPECT_TRUE(a.lift->isResourceFree());
  // Told as b queued, then as it lost Lift.
  EXPECT_TRUE(waitUntil([&] { return a.module->calls().size() == 2; }));
  b.release();
  EXPECT_TRUE(c.take(10).empty());
}

}  // namespace
