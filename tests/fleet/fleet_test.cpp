// Fleet resources between robots of one process (and one robot process that
// is killed), against real etcd members started by the tests.
#include <spawn.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <memory>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <zuresource/zucontract.h>

#include <zufleet/zuetcdserver.h>
#include <zufleet/zuresourcefleet.h>

#include "support/observed.h"
#include "support/recordingmodule.h"
#include "support/resourcehelpers.h"
#include "support/threads.h"

extern char** environ;

namespace {

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
        owner(zutest::makeOwner(name, name + "Module")) {
    ZU::ZUFleetConfig config;
    config.endpoints = endpoints;
    config.robot = name;
    config.ttlSeconds = ttl;
    session = boost::make_shared<ZU::ZUFleetSession>(config);
    lift = ZU::ZUResourceFleet::create("Lift", nullptr, session);
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

/// Whether exactly one Lost event was seen, of robot `owner`'s Lift, with a
/// reason that starts with `reason`.
::testing::AssertionResult lostOnce(const ObservedLosses& observed, const std::string& owner,
                                    const std::string& reason) {
  const auto lost = [&] { return observed->events(ZU::ZUEvent::Kind::Lost); };
  if (!waitUntil([&] { return !lost().empty(); })) return ::testing::AssertionFailure() << "none";
  const std::vector<ZU::ZUEvent> losses = lost();
  if (losses.size() != 1 || losses[0].owner != owner || losses[0].resource != "Lift" ||
      losses[0].reason.rfind(reason, 0) != 0)
    return ::testing::AssertionFailure() << losses.size() << " losses, the first of "
                                         << losses[0].owner << ": " << losses[0].reason;
  return ::testing::AssertionSuccess();
}

/// Runs `take(timeout)` of a robot in a thread of its own.
struct Waiter {
  std::optional<ZU::ZUError> error;
  GuardedThread thread;
  Waiter(Robot& robot, int timeout)
      : thread([this, &robot, timeout] { error = errorOf([&] { robot.take(timeout); }); }) {}
};

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
  // A port that accepts connections and never answers.
  const int silent = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(::bind(silent, reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(::listen(silent, 64), 0);
  ASSERT_EQ(::getsockname(silent, reinterpret_cast<sockaddr*>(&address), &size), 0);
  Robot mute("m", {"http://127.0.0.1:" + std::to_string(ntohs(address.sin_port))});
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
    if (row.error.empty()) {
      EXPECT_FALSE(error);
      EXPECT_EQ(result, row.noWait);
    } else {
      ASSERT_TRUE(error);
      EXPECT_NE(error->getDescription().find(row.error), std::string::npos) << error->toString();
    }
    EXPECT_TRUE(row.robot.lift->isResourceFree());
    EXPECT_EQ(row.robot.lift->httpGet(0), "---Lift<br />");
  }
  ::close(silent);
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

TEST(Fleet, AKilledHolderProcessHandsOverWithinItsTtlAndAPollingPeriod) {
  ZU::ZUEtcdServer etcd;
  const int ttl = 2;
  int out[2];
  ASSERT_EQ(::pipe(out), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  std::string args[] = {ZUFLEET_HOLDER, etcd.endpoints()[0], std::to_string(ttl), "Lift"};
  char* argv[] = {&args[0][0], &args[1][0], &args[2][0], &args[3][0], nullptr};
  pid_t child = -1;
  ASSERT_EQ(posix_spawn(&child, ZUFLEET_HOLDER, &actions, nullptr, argv, environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  FILE* lines = ::fdopen(out[0], "r");
  long long childToken = 0;
  const int read = std::fscanf(lines, "held %lld", &childToken);
  std::fclose(lines);
  ASSERT_EQ(read, 1);

  Robot b("b", etcd.endpoints(), ttl);
  Waiter waitB(b, 30);
  ASSERT_TRUE(waitUntil([&] { return b.waiting(); }));
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  zutest::Stopwatch watch;
  ASSERT_TRUE(waitB.thread.joinFor(30000));
  EXPECT_FALSE(waitB.error) << waitB.error->toString();
  // etcd sweeps expired leases every 500 ms.
  EXPECT_LE(watch.elapsedMs(), ttl * 1000 + kPollMs + 500 + zutest::lateToleranceMs());
  EXPECT_GT(b.lift->fencingToken(), childToken);
}

TEST(Fleet, WaitsOutlastAnEtcdRestartAndNewWaitsFailAtOnceWhileItIsDown) {
  ZU::ZUEtcdServer etcd;
  Robot a("a", etcd.endpoints(), 10), b("b", etcd.endpoints(), 10), c("c", etcd.endpoints(), 10);
  ObservedLosses observed;
  ASSERT_TRUE(a.take(5).empty());
  Waiter waitB(b, 60);
  ASSERT_TRUE(waitUntil([&] { return b.waiting(); }));

  etcd.stop(0);
  zutest::Stopwatch watch;
  auto refused = errorOf([&] { c.take(5); });
  ASSERT_TRUE(refused);
  EXPECT_NE(refused->getDescription().find("etcd unreachable"), std::string::npos);
  EXPECT_LE(watch.elapsedMs(), zutest::lateToleranceMs());
  a.release();  // given back while etcd is away: handed on when it returns
  etcd.start(0);

  ASSERT_TRUE(waitB.thread.joinFor(20000));
  EXPECT_FALSE(waitB.error) << waitB.error->toString();
  EXPECT_TRUE(b.holds());
  EXPECT_TRUE(observed->events(ZU::ZUEvent::Kind::Lost).empty());
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
  EXPECT_TRUE(lostOnce(observed, "a", "etcd unreachable for longer than the lease's TTL of 2 s"));
  EXPECT_TRUE(a.lift->isResourceFree());
  // Told as b queued, then as it lost Lift.
  EXPECT_TRUE(waitUntil([&] { return a.module->calls().size() == 2; }));
  b.release();
  EXPECT_TRUE(c.take(10).empty());
}

TEST(Fleet, ALostLeaseReleasesTheHolderAndTellsItsModuleAndTheObservers) {
  ZU::ZUEtcdServer etcd;
  Robot a("a", etcd.endpoints(), 2), b("b", etcd.endpoints(), 2);
  ObservedLosses observed;
  ASSERT_TRUE(a.take(5).empty());
  a.session->client().revoke(a.session->lease());

  ASSERT_TRUE(waitUntil([&] { return a.lift->isResourceFree(); }));
  EXPECT_EQ(a.lift->fencingToken(), 0);
  EXPECT_TRUE(waitUntil([&] { return a.module->calls() == std::vector<std::string>{"Lift"}; }));
  EXPECT_TRUE(lostOnce(observed, "a", "lease expired"));
  EXPECT_TRUE(b.take(5).empty());
  EXPECT_TRUE(a.take(0, {"Lift"}) == std::vector<std::string>{"Lift"});
}

}  // namespace
