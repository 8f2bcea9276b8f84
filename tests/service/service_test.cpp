// The service with real processes on real sockets: a zuresourced per test,
// clients in this process and in processes of their own.

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <zuclient/zuclient.h>
#include <zuprotocol/zuresource.grpc.pb.h>

#include "support/childprocess.h"
#include "support/runningservice.h"
#include "support/threads.h"

namespace {

using namespace std::chrono_literals;
using ZU::client::ZUAcquisition;
using ZU::client::ZUCancel;
using ZU::client::ZUServiceError;
using ZU::client::ZUSession;
using ZU::client::ZUWaitError;
using zutest::ChildProcess;
using zutest::RunningService;

/// Far longer than anything here should take, even in a sanitizer build.
constexpr auto kEventually = 30s;

bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kEventually;
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(20ms);
  }
  return condition();
}

/// The waits the service's snapshot shows now.
std::size_t waitCount(ZU::client::ZUClient& client) {
  return nlohmann::json::parse(client.snapshotJson()).at("waits").size();
}

/// The holders of `leaf` in the snapshot, joined by spaces; "" when free.
std::string holderOf(ZU::client::ZUClient& client, const std::string& leaf) {
  const auto snapshot = nlohmann::json::parse(client.snapshotJson());
  for (const auto& r : snapshot.at("resources")) {
    if (r.at("name") != leaf) continue;
    std::string holders;
    for (const auto& h : r.at("holders")) holders += (holders.empty() ? "" : " ") + h.get<std::string>();
    return holders;
  }
  return "?";
}

/// A client process holding or waiting for `resource`.
std::unique_ptr<ChildProcess> client(const RunningService& service, const std::string& module,
                                     const std::string& verb, const std::string& owner,
                                     const std::string& resource) {
  return std::make_unique<ChildProcess>(
      SERVICE_CLIENT, std::vector<std::string>{service.target(), module, verb, owner, resource});
}

/// The service's keepalive: short, so that a frozen client is given up soon,
/// and longer in slow builds, where a busy client may answer pings late.
std::string keepaliveMs() { return std::to_string(1000 + 5 * zutest::lateToleranceMs()); }

class ServiceTest : public ::testing::Test {
 protected:
  RunningService service{ZURESOURCED, {"--keepalive-ms", keepaliveMs()}};
  void SetUp() override { ASSERT_TRUE(service.listening()); }
};

TEST_F(ServiceTest, HolderToldItIsWantedLetsGoAndTheWaiterIsGranted) {
  std::unique_ptr<ZUAcquisition> held;
  std::promise<std::string> told;
  ZUSession::Handlers handlers;
  handlers.onWanted = [&](const std::string& resource, const std::string& owner) {
    told.set_value(owner + " " + resource);
    held.reset();  // lets go from inside the notice
  };
  ZUSession holder("Wave", handlers, service.target());
  held = std::make_unique<ZUAcquisition>(holder.acquire("wave", "Arms", 5));

  ZUSession waiter("Hug", {}, service.target());
  std::vector<std::string> behind;
  auto got = waiter.acquire("hug", "Arms", 30, {}, [&](const std::string& r, const std::string& h) {
    behind.push_back(r + " " + h);
  });
  EXPECT_EQ(told.get_future().get(), "wave LeftArm");
  ASSERT_FALSE(behind.empty());
  EXPECT_EQ(behind.front(), "LeftArm wave");
  EXPECT_EQ(holderOf(waiter, "LeftArm"), "hug");
  EXPECT_EQ(holderOf(waiter, "RightArm"), "hug");
}

// A client killed while it holds leaves nothing held; killed while it waits,
// its wait ends, and the resource does not go to it later.
TEST_F(ServiceTest, KilledClientLeavesNothing) {
  ZUSession observer("Observer", {}, service.target());
  {
    auto holder = client(service, "Holder", "hold", "holder", "Legs");
    ASSERT_EQ(holder->lineStartingWith("granted"), "granted");
    ZUSession waiter("Waiter", {}, service.target());
    auto got = std::async(std::launch::async, [&] { return waiter.acquire("walker", "Legs", 60); });
    ASSERT_TRUE(eventually([&] { return waitCount(observer) == 1; }));
    holder->signal(SIGKILL);
    auto acquisition = got.get();
    EXPECT_EQ(holderOf(observer, "LeftLeg"), "walker");
  }
  ZUSession holder("Holder2", {}, service.target());
  auto head = holder.acquire("holder2", "Head", 5);
  auto waiter = client(service, "Waiter2", "wait", "waiter2", "Head");
  ASSERT_EQ(waiter->lineStartingWith("waiting"), "waiting Head behind holder2");
  waiter->signal(SIGKILL);
  waiter->wait();
  EXPECT_TRUE(eventually([&] { return waitCount(observer) == 0; }));
  head.release();
  EXPECT_EQ(holderOf(observer, "Head"), "");
}

TEST_F(ServiceTest, FrozenHolderIsGivenUpAfterTheKeepalive) {
  auto holder = client(service, "Frozen", "hold", "frozen", "Head");
  ASSERT_EQ(holder->lineStartingWith("granted"), "granted");
  holder->signal(SIGSTOP);
  ZUSession waiter("Waiter", {}, service.target());
  const auto start = std::chrono::steady_clock::now();
  auto got = waiter.acquire("waiter", "Head", 60);
  // Given up after about one keepalive: not at once, not never.
  EXPECT_GE(std::chrono::steady_clock::now() - start, 500ms);
  EXPECT_EQ(holderOf(waiter, "Head"), "waiter");
  holder->signal(SIGCONT);
  EXPECT_EQ(holder->lineStartingWith("ended").rfind("ended UNAVAILABLE", 0), 0u)
      << "a client given up learns that its session ended";
}

// A wait stopped by its client (a cancel, or the call's deadline) leaves
// nothing: no wait, and the resource does not go to that owner later.
TEST_F(ServiceTest, WaitStoppedByTheClientLeavesNothing) {
  ZUSession holder("Holder", {}, service.target());
  auto head = holder.acquire("holder", "Head", 5);
  ZUSession waiter("Waiter", {}, service.target());
  for (const bool byDeadline : {false, true}) {
    SCOPED_TRACE(byDeadline ? "deadline" : "cancel");
    ZUCancel cancel;
    auto got = std::async(std::launch::async, [&] {
      if (byDeadline) {
        auto stub = zuresource::v1::ResourceService::NewStub(
            grpc::CreateChannel(service.target(), grpc::InsecureChannelCredentials()));
        grpc::ClientContext context;
        context.set_deadline(std::chrono::system_clock::now() + 1s);
        zuresource::v1::AcquireRequest request;
        request.set_session(waiter.id());
        request.set_owner("waiter");
        request.set_resource("Head");
        auto reader = stub->Acquire(&context, request);
        zuresource::v1::AcquireReply reply;
        while (reader->Read(&reply)) {
        }
        return std::string(ZUServiceError::codeName(reader->Finish().error_code()));
      }
      try {
        waiter.acquire("waiter", "Head", 0, {}, {}, &cancel);
        return std::string("granted");
      } catch (const ZUServiceError& error) {
        return std::string(ZUServiceError::codeName(error.code()));
      }
    });
    ASSERT_TRUE(eventually([&] { return waitCount(holder) == 1; }));
    cancel.cancel();
    EXPECT_EQ(got.get(), byDeadline ? "DEADLINE_EXCEEDED" : "CANCELLED");
    EXPECT_TRUE(eventually([&] { return waitCount(holder) == 0; }));
  }
  head.release();
  EXPECT_EQ(holderOf(holder, "Head"), "");
}

// With a hundred waits pending, each blocking a thread of the service, a
// release, a status and a new session are still answered.
TEST_F(ServiceTest, HundredWaitsDoNotStarveTheService) {
  constexpr int kWaits = 100;
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
  ASSERT_TRUE(eventually([&] { return waitCount(holder) == kWaits; }));
  EXPECT_NE(holder.status().find("Head"), std::string::npos);
  ZUSession late("Late", {}, service.target());
  auto arm = late.acquire("late", "LeftArm", 5);
  head.release();
  EXPECT_TRUE(eventually([&] { return holderOf(holder, "Head").rfind("waiter", 0) == 0; }));
  waiters.close();  // every other wait stops
  closing.set_value();
  int granted = 0, stopped = 0;
  for (auto& wait : waits) {
    const std::string outcome = wait.get();
    if (outcome == "granted") ++granted;
    if (outcome == "box stop while waiting") ++stopped;
  }
  EXPECT_EQ(granted, 1);
  EXPECT_EQ(stopped, kWaits - 1);
  EXPECT_TRUE(eventually([&] { return waitCount(holder) == 0; }));
}

TEST_F(ServiceTest, StreamThatSaysNoHelloIsEnded) {
  auto channel = grpc::CreateChannel(service.target(), grpc::InsecureChannelCredentials());
  auto stub = zuresource::v1::ResourceService::NewStub(channel);
  grpc::ClientContext context;
  auto stream = stub->Session(&context);
  zuresource::v1::SessionEvent event;
  EXPECT_FALSE(stream->Read(&event));
  const grpc::Status status = stream->Finish();
  EXPECT_EQ(status.error_code(), grpc::StatusCode::DEADLINE_EXCEEDED);
}

TEST(ServiceStop, SigtermEndsEverySessionAndTheAcquisitionsKnow) {
  RunningService service(ZURESOURCED);
  ASSERT_TRUE(service.listening());
  std::promise<grpc::Status> ended;
  ZUSession::Handlers handlers;
  handlers.onEnded = [&](const grpc::Status& status) { ended.set_value(status); };
  ZUSession holder("Holder", handlers, service.target());
  auto head = holder.acquire("holder", "Head", 5);
  ZUSession waiter("Waiter", {}, service.target());
  auto got = std::async(std::launch::async, [&] {
    try {
      waiter.acquire("waiter", "Head", 60);
      return std::string("granted");
    } catch (const std::exception& error) {
      return std::string(error.what());
    }
  });
  ASSERT_TRUE(eventually([&] { return waitCount(holder) == 1; }));
  service.process().signal(SIGTERM);
  const grpc::Status status = ended.get_future().get();
  EXPECT_EQ(status.error_code(), grpc::StatusCode::UNAVAILABLE);
  EXPECT_EQ(status.error_message(), "the service is stopping");
  EXPECT_TRUE(head.lost());
  EXPECT_EQ(head.lostReason(), "the service is stopping");
  EXPECT_THROW(head.release(), ZUServiceError);
  EXPECT_EQ(got.get(), "UNAVAILABLE: the service is stopping")
      << "a wait is not granted what a stopping service releases";
  EXPECT_EQ(service.process().wait(), 0);
}

}  // namespace
