// Faults of the host: modules that throw, never return, are missing or go away
// with work queued, and a broker that goes away while waits run. The waits go
// on and end as they would without the fault; nothing crashes, hangs or leaks
// (the address-sanitizer build checks leaks at exit). A module without the
// method or taking another type: zuownerstrong_test and host_broker_test.

#include <atomic>
#include <climits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuhost/zubroker.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuresourcelist.h>

#include "support/asyncrun.h"
#include "support/recordingmodule.h"
#include "support/resourcehelpers.h"
#include "support/threads.h"

namespace {

using ResourcePtr = boost::shared_ptr<ZU::ZUResource>;
using zutest::makeOwner;
using zutest::makePlain;
using zutest::waitFailed;
using zutest::WaitForRun;
using zutest::waitReturned;
using zutest::waitUntil;

using ZU::contract::waitTimedOut;

// Holders h[i] of r[i], all of module "H" on `broker`: one holder per resource,
// since waits on one holder share its release flag.
class HostFaultTest : public ::testing::Test {
 protected:
  HostFaultTest() {
    for (int i = 0; i < 3; ++i) {
      h[i]->setParentBroker(broker);
      EXPECT_TRUE(r[i]->waitFor(h[i], "", 0, {}).empty());
    }
  }
  std::size_t waitersLeft() const {
    return h[0]->copyWaiters().size() + h[1]->copyWaiters().size() + h[2]->copyWaiters().size();
  }
  std::unique_ptr<WaitForRun> waitOn(int i, int timeout) {
    return std::make_unique<WaitForRun>(r[i], makeOwner("w" + std::to_string(i), "W"), timeout);
  }

  boost::shared_ptr<ZU::ZUBroker> broker = boost::make_shared<ZU::ZUBroker>();
  boost::shared_ptr<ZU::ZUOwner> h[3] = {makeOwner("h0", "H"), makeOwner("h1", "H"),
                                         makeOwner("h2", "H")};
  ResourcePtr r[3] = {makePlain("R0"), makePlain("R1"), makePlain("R2")};
};

TEST_F(HostFaultTest, OnResourceThatThrowsLeavesTheWaitsAndTheModuleGoing) {
  zutest::RecordingModule module(broker, "H");
  module.onResource([](const std::string& resource) {
    if (resource == "R0") throw std::runtime_error("module failure");
    throw ZU::ZUError("H", "__onResource__", "module failure", "test", 1);
  });
  auto limited = waitOn(0, 1), unlimited = waitOn(1, INT_MIN);
  ASSERT_TRUE(waitUntil([&] { return module.calls().size() == 2; }));
  r[1]->release(h[1]);
  EXPECT_TRUE(waitReturned(unlimited->wait()));
  EXPECT_TRUE(waitFailed(limited->wait(), waitTimedOut("R0")));
  EXPECT_TRUE(waitFailed(waitOn(2, 0)->wait(), waitTimedOut("R2")));
  module.waitIdle();  // and the module took that notification as before
  EXPECT_EQ(module.calls().back(), "R2");
  EXPECT_EQ(waitersLeft(), 0u);
}

// A call that never returns holds up neither the waits nor the module's end:
// the queued calls are dropped with the module.
TEST_F(HostFaultTest, OnResourceThatNeverReturnsDelaysNoWaitAndQueuedCallsGoWithTheModule) {
  zutest::Latch gate;
  std::atomic<int> calls{0};
  auto module = std::make_unique<zutest::RecordingModule>(broker, "H");
  // Lets the blocked call go also when an assertion leaves the test early.
  std::shared_ptr<void> letGo(nullptr, [&gate](void*) { gate.countDown(); });
  module->onResource([&](const std::string&) {
    ++calls;
    gate.wait();
  });
  auto limited = waitOn(0, 1), unlimited = waitOn(1, INT_MIN);
  ASSERT_TRUE(waitUntil([&] { return module->module()->startedTasks() == 2; }));
  const zutest::WaitForOutcome outcome = limited->wait();
  EXPECT_TRUE(waitFailed(outcome, waitTimedOut("R0")));
  EXPECT_GE(outcome.elapsedMs, 980);  // first poll after the deadline, as always
  EXPECT_LE(outcome.elapsedMs, 1200 + zutest::lateToleranceMs());
  r[1]->release(h[1]);
  EXPECT_TRUE(waitReturned(unlimited->wait()));
  EXPECT_EQ(calls, 1);  // the second is still queued behind the first
  auto queued = waitOn(2, 1);
  ASSERT_TRUE(waitUntil([&] { return module->module()->startedTasks() == 3; }));

  zutest::GuardedThread destroyer([&module] { module.reset(); });  // waits for the running call
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  gate.countDown();
  ASSERT_TRUE(destroyer.joinFor(5000));
  EXPECT_EQ(calls, 1);  // the queued calls were dropped
  EXPECT_TRUE(waitFailed(queued->wait(), waitTimedOut("R2")));
  EXPECT_EQ(waitersLeft(), 0u);
}

TEST_F(HostFaultTest, HolderModuleMissingFromTheBrokerFailsTheWaitAtOnce) {
  auto taken = makePlain("Taken");
  auto group = zutest::makeGroup("G", {taken, r[0]});
  auto error = zutest::errorOf([&] { group->waitFor(makeOwner("w", "W"), "", 5, {}); });
  ASSERT_TRUE(error);  // the broker's error, before any sleep
  EXPECT_EQ(error->getModule() + "." + error->getMethod() + ": " + error->getDescription(),
            "ZUBroker.getProxy: No module named 'H'");
  EXPECT_EQ(waitersLeft(), 0u);
  EXPECT_EQ(h[0]->timeout, 0);           // not one polling period slept
  EXPECT_TRUE(taken->isResourceFree());  // the group gave back what it had taken
  EXPECT_TRUE(r[0]->isResourceOwned("H"));
  r[0]->release(h[0]);
  EXPECT_TRUE(group->waitFor(makeOwner("w", "W"), "", 0, {}).empty());
}

TEST_F(HostFaultTest, BrokerDestroyedWhileWaitsRunAndNotificationsAreUnderWay) {
  auto module = boost::make_shared<ZU::ZUModule>("H");
  module->bindMethod<std::string>("__onResource__", [](const std::string&) {});
  broker->addModule(module);
  module.reset();  // the broker's handle is the only one
  std::vector<std::unique_ptr<WaitForRun>> waits;
  for (int i = 0; i < 16; ++i) {
    auto resource = makePlain("Q" + std::to_string(i));
    ASSERT_TRUE(resource->waitFor(h[0], "", 0, {}).empty());
    waits.push_back(std::make_unique<WaitForRun>(resource, makeOwner("w", "W"), 0));
  }
  auto unlimited = waitOn(1, INT_MIN);
  boost::weak_ptr<ZU::ZUBroker> brokerWatch = broker;
  broker.reset();  // while the waits look the module up and start their calls
  EXPECT_TRUE(waitUntil([&] { return brokerWatch.expired(); }));
  for (int i = 0; i < 16; ++i)
    EXPECT_TRUE(waitFailed(waits[i]->wait(), waitTimedOut("Q" + std::to_string(i))));
  EXPECT_EQ(h[0]->copyWaiters().size(), 0u);
  EXPECT_TRUE(unlimited->running());  // goes on without its holder's module
  r[1]->release(h[1]);
  EXPECT_TRUE(waitReturned(unlimited->wait()));
  // A new wait on an owner of the gone broker notifies nobody and runs as usual.
  EXPECT_TRUE(waitFailed(waitOn(2, 0)->wait(), waitTimedOut("R2")));
}

}  // namespace
