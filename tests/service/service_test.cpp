// The service with real processes on real sockets: a zuresourced per test,
// clients in this process and in processes of their own.

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <zuclient/zuclient.h>
#include <zuprotocol/zuresource.grpc.pb.h>
#include <zuservice/zuservicecontract.h>

#include "support/childprocess.h"
#include "support/resourcehelpers.h"
#include "support/runningservice.h"
#include "support/snapshot.h"
#include "support/threads.h"

namespace {

using namespace std::chrono_literals;
using ZU::client::ZUAcquisition;
using ZU::client::ZUCancel;
using ZU::client::ZUServiceError;
using ZU::client::ZUSession;
using ZU::client::ZUWaitError;
using zutest::ChildProcess;
using zutest::Held;
using zutest::RunningService;

/// Far longer than anything here should take, even in a sanitizer build.
bool eventually(const std::function<bool()>& condition) {
  return zutest::waitUntil(condition, 30000);
}

/// The waits the service's snapshot shows now.
std::size_t waitCount(ZU::client::ZUClient& client) {
  return nlohmann::json::parse(client.snapshotJson()).at("waits").size();
}

/// Who holds what now.
Held holdings(ZU::client::ZUClient& client) { return zutest::heldIn(client.snapshotJson()); }

/// Asks for `resource` in a thread of its own: "granted", or what the call threw.
std::future<std::string> asking(ZUSession& session, const std::string& owner,
                                const std::string& resource, int timeout,
                                ZUCancel* cancel = nullptr) {
  return std::async(std::launch::async, [=, &session] {
    try {
      session.acquire(owner, resource, timeout, {}, {}, cancel);
      return std::string("granted");
    } catch (const std::exception& error) {
      return std::string(error.what());
    }
  });
}

class ServiceTest : public ::testing::Test {
 protected:
  // A short keepalive, so that a frozen client is given up soon; longer in
  // slow builds, where a busy client may answer pings late.
  RunningService service{ZURESOURCED,
                         {"--keepalive-ms", std::to_string(1000 + 5 * zutest::lateToleranceMs())}};
  void SetUp() override { ASSERT_TRUE(service.listening()); }
};

TEST_F(ServiceTest, HolderToldItIsWantedLetsGoAndTheWaiterIsGranted) {
  // The notice follows the grant only through the service, which the thread
  // sanitizer cannot see: the mutex shows it the hand-off.
  std::mutex heldMutex;
  std::unique_ptr<ZUAcquisition> held;
  std::promise<std::string> told;
  ZUSession::Handlers handlers;
  handlers.onWanted = [&](const std::string& resource, const std::string& owner) {
    told.set_value(owner + " " + resource);
    std::lock_guard<std::mutex> lock(heldMutex);
    held.reset();  // lets go from inside the notice
  };
  ZUSession holder("Wave", handlers, service.target());
  auto arms = std::make_unique<ZUAcquisition>(holder.acquire("wave", "Arms", 5));
  {
    std::lock_guard<std::mutex> lock(heldMutex);
    held = std::move(arms);
  }

  ZUSession waiter("Hug", {}, service.target());
  std::vector<std::string> behind;
  auto got = waiter.acquire("hug", "Arms", 30, {}, [&](const std::string& r, const std::string& h) {
    behind.push_back(r + " " + h);
  });
  EXPECT_EQ(told.get_future().get(), "wave LeftArm");
  ASSERT_FALSE(behind.empty());
  EXPECT_EQ(behind.front(), "LeftArm wave");
  EXPECT_EQ(holdings(waiter), (Held{{"LeftArm", {"hug"}}, {"RightArm", {"hug"}}}));
}

// Client processes killed or frozen, one holding and one waiting: a frozen
// one is given up after about one keepalive, and learns it once it runs
// again. What it held goes to the waiter behind it, its wait ends, and
// nothing goes to it later.
TEST_F(ServiceTest, LostClientLeavesNothing) {
  ZUSession here("Here", {}, service.target());
  for (const int signal : {SIGKILL, SIGSTOP}) {
    SCOPED_TRACE(strsignal(signal));
    const std::string n = std::to_string(signal);
    auto head = std::make_unique<ZUAcquisition>(here.acquire("here", "Head", 5));
    ChildProcess holder(SERVICE_CLIENT,
                        {service.target(), "Holder" + n, "hold", "holder" + n, "Legs"});
    ChildProcess waiter(SERVICE_CLIENT,
                        {service.target(), "Waiter" + n, "wait", "waiter" + n, "Head"});
    ASSERT_EQ(holder.lineStartingWith("granted"), "granted");
    ASSERT_EQ(waiter.lineStartingWith("waiting"), "waiting Head behind here");
    auto gotLegs = std::async(std::launch::async, [&] { return here.acquire("here", "Legs", 60); });
    ASSERT_TRUE(eventually([&] { return waitCount(here) == 2; }));
    const auto start = std::chrono::steady_clock::now();
    holder.signal(signal);
    waiter.signal(signal);
    const ZUAcquisition legs = gotLegs.get();
    EXPECT_TRUE(eventually([&] { return waitCount(here) == 0; }));
    head.reset();
    EXPECT_EQ(holdings(here), (Held{{"LeftLeg", {"here"}}, {"RightLeg", {"here"}}}));
    if (signal != SIGSTOP) continue;
    EXPECT_GE(std::chrono::steady_clock::now() - start, 500ms) << "given up, but not at once";
    // A client given up learns that its session ended. How its gRPC says so
    // depends on what it reads first once thawed: the closed connection
    // (UNAVAILABLE) or the stream's reset (CANCELLED); 4 runs in 20 saw the
    // second.
    for (ChildProcess* lost : {&holder, &waiter}) {
      lost->signal(SIGCONT);
      const std::string ended = lost->lineStartingWith("ended ");
      EXPECT_TRUE(ended.rfind("ended UNAVAILABLE", 0) == 0 || ended.rfind("ended CANCELLED", 0) == 0)
          << ended;
    }
  }
}

// A wait stopped by its client leaves nothing: no wait, and the resource
// does not go to that owner later. (A call's deadline ends it the same way:
// the service sees both as the call cancelled.)
TEST_F(ServiceTest, WaitStoppedByTheClientLeavesNothing) {
  ZUSession holder("Holder", {}, service.target());
  auto head = holder.acquire("holder", "Head", 5);
  ZUSession waiter("Waiter", {}, service.target());
  ZUCancel cancel;
  auto got = asking(waiter, "waiter", "Head", 0, &cancel);
  ASSERT_TRUE(eventually([&] { return waitCount(holder) == 1; }));
  cancel.cancel();
  const std::string outcome = got.get();
  EXPECT_EQ(outcome.rfind("CANCELLED: ", 0), 0u) << outcome;
  EXPECT_TRUE(eventually([&] { return waitCount(holder) == 0; }));
  head.release();
  EXPECT_EQ(holdings(holder), Held{});
}

// With a hundred waits pending, each blocking a thread of the service, a
// release, a status and a new session are still answered; one acquire call
// more than the service runs at once is refused until one ends. (A hundred
// threads of a client are slow to answer pings in slow builds: the keepalive
// is long.)
TEST(ServiceCrowd, HundredWaitsDoNotStarveTheServiceAndOneTooManyIsRefused) {
  constexpr int kWaits = 100;
  RunningService service{ZURESOURCED, {"--max-waits", "100", "--keepalive-ms", "60000"}};
  ZUSession holder("Holder", {}, service.target());
  auto head = holder.acquire("holder", "Head", 5);
  ZUSession waiters("Waiters", {}, service.target());
  std::promise<void> closing;
  std::shared_future<void> closed = closing.get_future().share();
  std::vector<std::future<std::string>> waits;
  for (int i = 0; i < kWaits; ++i) {
    waits.push_back(std::async(std::launch::async, [&, i] {
      try {
        // Not "waiter1" and "waiter10": the one would hand Head down to the other.
        auto held = waiters.acquire("waiter" + std::to_string(1000 + i), "Head", 60);
        closed.wait();  // holds it until the session is gone
        return std::string("granted");
      } catch (const ZUWaitError& error) {
        return error.description();
      } catch (const ZUServiceError& error) {
        return std::string(error.what());
      }
    }));
  }
  // No ASSERT before the waits are ended below: their futures would never be.
  EXPECT_TRUE(eventually([&] { return waitCount(holder) == kWaits; }));
  EXPECT_NE(holder.status().find("Head"), std::string::npos);
  ZUSession late("Late", {}, service.target());
  EXPECT_EQ(asking(late, "late", "LeftArm", 5).get(),
            std::string("RESOURCE_EXHAUSTED: ") + ZU::service::contract::kTooManyWaits);
  head.release();
  // One more call runs once the granted wait's call has ended, a moment
  // after its grant shows.
  EXPECT_TRUE(eventually([&] { return asking(late, "late", "LeftArm", 5).get() == "granted"; }));
  waiters.close();  // every other wait stops
  closing.set_value();
  std::map<std::string, int> outcomes;
  for (auto& wait : waits) ++outcomes[wait.get()];
  EXPECT_EQ(outcomes,
            (std::map<std::string, int>{{"box stop while waiting", kWaits - 1}, {"granted", 1}}));
  EXPECT_TRUE(eventually([&] { return waitCount(holder) == 0; }));
}

// A stream that never says hello is ended after a keepalive.
TEST_F(ServiceTest, StreamThatSaysNoHelloIsEnded) {
  auto stub = zuresource::v1::ResourceService::NewStub(
      grpc::CreateChannel(service.target(), grpc::InsecureChannelCredentials()));
  grpc::ClientContext context;
  auto stream = stub->Session(&context);
  zuresource::v1::SessionEvent event;
  EXPECT_FALSE(stream->Read(&event));
  EXPECT_EQ(stream->Finish().error_code(), grpc::StatusCode::DEADLINE_EXCEEDED);
}

// A start refused: a bad value exits 2 before anything starts; what cannot
// be had (a port, a file, the socket of a service that runs) exits 1. Either
// way no socket is left behind, and the running service still answers.
struct RefusedStart {
  std::vector<std::string> args;  // DIR: a fresh folder; RUNNING: a running service's address
  int exit;
};

TEST(ServiceStart, RefusedStartsLeaveNoSocket) {
  RunningService running(ZURESOURCED);
  ASSERT_TRUE(running.listening());
  const std::vector<RefusedStart> rows = {
      {{"--http", "65536"}, 2},         {{"--http", "-1"}, 2},
      {{"--http", "80x"}, 2},           {{"--http", ""}, 2},
      {{"--http", "127.0.0.1:"}, 2},    {{"--http", ":8080"}, 2},
      {{"--http", "192.0.2.1:0"}, 1},  // not an address of this machine
      {{"--keepalive-ms", "99"}, 2},    {{"--max-waits", "0"}, 2},
      {{"--tree", "DIR/cut.json"}, 2},  {{"--tree", "DIR/twice.json"}, 2},
      {{"--tree", "DIR/none.json"}, 2}, {{"--record", "DIR/none/day.jsonl"}, 1},
      {{"--listen", "RUNNING"}, 1},     {{"--listen", "unix:DIR/cut.json"}, 1},
  };
  for (RefusedStart row : rows) {
    zutest::TempDir dir;
    std::ofstream(dir.path() + "/cut.json") << R"({"resources": [{"name": "Head")";
    std::ofstream(dir.path() + "/twice.json") << R"({"resources": [{"name": "A"}, {"name": "A"}]})";
    std::string& value = row.args.back();
    if (const auto at = value.find("DIR"); at != std::string::npos)
      value.replace(at, 3, dir.path());
    if (value == "RUNNING") value = running.target();
    SCOPED_TRACE(row.args.front() + " " + value);
    const std::string socket = dir.path() + "/zuresource.sock";
    row.args.insert(row.args.begin(), {"--listen", "unix:" + socket});
    ChildProcess refused(ZURESOURCED, row.args);
    EXPECT_EQ(refused.wait(), row.exit);
    EXPECT_NE(::access(socket.c_str(), F_OK), 0);
    EXPECT_EQ(::access((dir.path() + "/cut.json").c_str(), F_OK), 0) << "a file in the way stays";
  }
  EXPECT_NO_THROW(ZU::client::ZUClient(running.target()).status());
}

// The service stopped or killed under its clients: every session ends, a
// holder learns that its acquisition is lost, a waiter is not granted. A
// killed service's socket does not keep the next one from starting.
TEST(ServiceStop, StoppedOrKilledServiceEndsEverySessionAndTheAcquisitionsKnow) {
  for (const int signal : {SIGTERM, SIGKILL}) {
    SCOPED_TRACE(strsignal(signal));
    RunningService service(ZURESOURCED);
    ASSERT_TRUE(service.listening());
    std::promise<grpc::Status> ended;
    ZUSession::Handlers handlers;
    handlers.onEnded = [&](const grpc::Status& status) { ended.set_value(status); };
    ZUSession holder("Holder", handlers, service.target());
    auto head = holder.acquire("holder", "Head", 5);
    ZUSession waiter("Waiter", {}, service.target());
    auto got = asking(waiter, "waiter", "Head", 60);
    ASSERT_TRUE(eventually([&] { return waitCount(holder) == 1; }));
    service.process().signal(signal);
    const grpc::Status status = ended.get_future().get();
    EXPECT_EQ(status.error_code(), grpc::StatusCode::UNAVAILABLE);
    EXPECT_TRUE(head.lost());
    const std::string reason = head.lostReason();
    EXPECT_THROW(head.release(), ZUServiceError);
    const std::string outcome = got.get();
    EXPECT_EQ(outcome.rfind("UNAVAILABLE: ", 0), 0u)
        << "a wait is not granted what a stopping service releases: " << outcome;
    if (signal == SIGTERM) {
      EXPECT_EQ(status.error_message(), "the service is stopping");
      EXPECT_EQ(reason, "the service is stopping");
      EXPECT_EQ(outcome, "UNAVAILABLE: the service is stopping");
      EXPECT_EQ(service.process().wait(), 0);
    } else {  // the socket a killed service left behind is taken by the next
      ChildProcess next(ZURESOURCED, {"--listen", service.target()});
      EXPECT_EQ(next.lineStartingWith("zuresourced: listening"),
                "zuresourced: listening on " + service.target());
    }
  }
}

}  // namespace
