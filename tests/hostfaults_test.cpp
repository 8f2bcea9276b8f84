// Faults of the host: modules that throw, never return, lack the method or go
// away with work queued, and a broker that goes away while waits run. The
// waits go on and end as they would without the fault; nothing crashes, hangs
// or leaks (the address-sanitizer build checks leaks at exit).

#include <algorithm>
#include <atomic>
#include <climits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuhost/zubroker.h>
#include <zuresource/zuresourcelist.h>

#include "support/guardedthread.h"
#include "support/latch.h"
#include "support/onexit.h"
#include "support/recordingmodule.h"
#include "support/resourcehelpers.h"
#include "support/stopwatch.h"
#include "support/waitforrun.h"

namespace {

using Names = std::vector<std::string>;
using ResourcePtr = boost::shared_ptr<ZU::ZUResource>;
using zutest::makeOwner;
using zutest::waitFailedWith;
using zutest::waitReturned;
using zutest::WaitForRun;

ResourcePtr makeResource(const std::string& name) {
  return boost::make_shared<ZU::ZUResource>(name, nullptr);
}

// Holders h0, h1 and h2 of R0, R1 and R2, all standing for module "H" on
// `broker`. One holder per resource: waits on one holder share its release
// flag, so a wait that starts on it again (for another resource it keeps)
// would hide the release of the first from its waiter.
class HostFaultTest : public ::testing::Test {
 protected:
  HostFaultTest() {
    for (int i = 0; i < 3; ++i) {
      h[i]->setParentBroker(broker);
      EXPECT_TRUE(r[i]->waitFor(h[i], "", 0, {}).empty());
    }
  }
  std::size_t waitersLeft() const {
    std::size_t count = 0;
    for (const auto& holder : h) count += holder->copyWaiters().size();
    return count;
  }

  boost::shared_ptr<ZU::ZUBroker> broker = boost::make_shared<ZU::ZUBroker>();
  boost::shared_ptr<ZU::ZUOwner> h[3] = {makeOwner("h0", "H"), makeOwner("h1", "H"),
                                         makeOwner("h2", "H")};
  ResourcePtr r[3] = {makeResource("R0"), makeResource("R1"), makeResource("R2")};
  const ResourcePtr &r0 = r[0], &r1 = r[1], &r2 = r[2];
};

TEST_F(HostFaultTest, OnResourceThatThrowsLeavesTheWaitsAndTheModuleGoing) {
  zutest::RecordingModule module(broker, "H");
  module.onResource([](const std::string& resource) {
    if (resource == "R0") throw std::runtime_error("module failure");
    throw ZU::ZUError("H", "__onResource__", "module failure", "test", 1);
  });
  WaitForRun limited(r0, makeOwner("w0", "W0"), 1), unlimited(r1, makeOwner("w1", "W1"), INT_MIN);
  ASSERT_TRUE(zutest::waitUntil([&] { return module.calls().size() == 2; }));
  r1->release(h[1]);
  EXPECT_TRUE(waitReturned(unlimited.wait()));
  EXPECT_TRUE(waitFailedWith(limited.wait(), "resource wait has timeouted on R0"));

  // The module takes the next notification as before.
  EXPECT_TRUE(zutest::errorOf([&] { r2->waitFor(makeOwner("w2", "W2"), "", 0, {}); }));
  module.waitIdle();
  Names calls = module.calls();
  std::sort(calls.begin(), calls.end());
  EXPECT_EQ(calls, (Names{"R0", "R1", "R2"}));
  EXPECT_EQ(waitersLeft(), 0u);
}

TEST_F(HostFaultTest, OnResourceThatNeverReturnsDelaysNoWait) {
  zutest::Latch gate;
  zutest::RecordingModule module(broker, "H");
  zutest::OnExit letGo([&gate] { gate.countDown(); });  // also when an assertion fails
  module.onResource([&gate](const std::string&) { gate.wait(); });

  WaitForRun limited(r0, makeOwner("w0", "W0"), 1), unlimited(r1, makeOwner("w1", "W1"), INT_MIN);
  ASSERT_TRUE(zutest::waitUntil([&] { return module.module()->startedTasks() == 2; }));
  const zutest::WaitForOutcome timedOut = limited.wait();
  EXPECT_TRUE(waitFailedWith(timedOut, "resource wait has timeouted on R0"));
  EXPECT_GE(timedOut.elapsedMs, 980);  // first poll after the deadline, as always
  EXPECT_LE(timedOut.elapsedMs, 1200 + zutest::lateToleranceMs());
  r1->release(h[1]);
  EXPECT_TRUE(waitReturned(unlimited.wait()));
  EXPECT_EQ(module.calls().size(), 1u);  // the second is still queued behind the first

  gate.countDown();
  module.waitIdle();
  EXPECT_EQ(module.calls().size(), 2u);
}

TEST_F(HostFaultTest, MissingOrMistypedOnResourceIsPrintedAndTheWaitGoesOn) {
  broker->addModule(boost::make_shared<ZU::ZUModule>("H"));  // no "__onResource__"
  auto mistyped = boost::make_shared<ZU::ZUModule>("M");
  mistyped->bindMethod<int>("__onResource__", [](const int&) {});
  broker->addModule(mistyped);
  auto other = makeOwner("m", "M");
  other->setParentBroker(broker);
  auto r3 = makeResource("R3");
  ASSERT_TRUE(r3->waitFor(other, "", 0, {}).empty());

  ::testing::internal::CaptureStdout();
  auto missingError = zutest::errorOf([&] { r0->waitFor(makeOwner("w0", "W0"), "", 0, {}); });
  auto mistypedError = zutest::errorOf([&] { r3->waitFor(makeOwner("w3", "W3"), "", 0, {}); });
  const std::string printed = ::testing::internal::GetCapturedStdout();
  ASSERT_TRUE(missingError);
  EXPECT_EQ(missingError->getDescription(), "resource wait has timeouted on R0");
  ASSERT_TRUE(mistypedError);
  EXPECT_EQ(mistypedError->getDescription(), "resource wait has timeouted on R3");
  EXPECT_NE(printed.find("Module 'H' has no function '__onResource__'"), std::string::npos)
      << printed;
  EXPECT_NE(printed.find("is of type string instead of type int"), std::string::npos) << printed;
  EXPECT_EQ(mistyped->startedTasks(), 0);
}

TEST_F(HostFaultTest, HolderModuleMissingFromTheBrokerFailsTheWaitAtOnce) {
  // The module lookup's error passes out of the wait unchanged, before any
  // sleep, and leaves no waiter entry behind.
  auto waiter = makeOwner("w", "W");
  auto taken = makeResource("Taken");
  auto group = zutest::makeGroup("G", {taken, r0});
  auto error = zutest::errorOf([&] { group->waitFor(waiter, "", 5, {}); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->getModule(), "ZUBroker");
  EXPECT_EQ(error->getMethod(), "getProxy");
  EXPECT_EQ(error->getDescription(), "No module named 'H'");
  EXPECT_EQ(waitersLeft(), 0u);
  EXPECT_EQ(h[0]->timeout, 0);       // not one polling period slept
  EXPECT_TRUE(taken->isResourceFree());  // the group gave back what it had taken
  EXPECT_TRUE(r0->isResourceOwned("H"));

  r0->release(h[0]);
  EXPECT_TRUE(group->waitFor(makeOwner("w", "W"), "", 0, {}).empty());
}

TEST_F(HostFaultTest, BrokerDestroyedWhileAWaitOnOneOfItsOwnersRuns) {
  auto module = std::make_unique<zutest::RecordingModule>(broker, "H");
  boost::weak_ptr<ZU::ZUBroker> brokerWatch = broker;
  WaitForRun waiting(r0, makeOwner("w", "W"), INT_MIN);
  ASSERT_TRUE(zutest::waitUntil([&] { return module->calls().size() == 1; }));
  broker.reset();  // the host goes away, and its modules stop with it
  module.reset();
  EXPECT_TRUE(zutest::waitUntil([&] { return brokerWatch.expired(); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(250));
  EXPECT_TRUE(waiting.running());

  r0->release(h[0]);
  EXPECT_TRUE(waitReturned(waiting.wait()));
  // A new wait on an owner of the gone broker notifies nobody and runs as usual.
  EXPECT_TRUE(waitFailedWith(WaitForRun(r1, makeOwner("x", "X"), 0).wait(),
                             "resource wait has timeouted on R1"));
}

TEST(HostFaults, BrokerDestroyedWhileNotificationsAreUnderWay) {
  std::atomic<int> calls{0};  // outlives the module, which may stop in any thread
  auto broker = boost::make_shared<ZU::ZUBroker>();
  auto module = boost::make_shared<ZU::ZUModule>("H");
  module->bindMethod<std::string>("__onResource__", [&calls](const std::string&) { ++calls; });
  broker->addModule(module);
  module.reset();  // the broker's handle is the only one
  std::vector<ResourcePtr> resources;
  std::vector<std::unique_ptr<WaitForRun>> waits;
  auto holder = makeOwner("h", "H");
  holder->setParentBroker(broker);
  for (int i = 0; i < 16; ++i) {
    resources.push_back(makeResource("R" + std::to_string(i)));
    ASSERT_TRUE(resources.back()->waitFor(holder, "", 0, {}).empty());
  }
  for (int i = 0; i < 16; ++i)
    waits.emplace_back(new WaitForRun(resources[i], makeOwner("w" + std::to_string(i), "W"), 0));
  broker.reset();  // while the waits look the module up and start their calls
  for (int i = 0; i < 16; ++i)
    EXPECT_TRUE(waitFailedWith(waits[i]->wait(), "resource wait has timeouted on R" +
                                                     std::to_string(i)));
  EXPECT_EQ(holder->copyWaiters().size(), 0u);
}

TEST_F(HostFaultTest, ModuleDestroyedWithTasksQueued) {
  zutest::Latch gate;
  std::atomic<int> calls{0};
  auto module = boost::make_shared<ZU::ZUModule>("H");
  zutest::OnExit letGo([&gate] { gate.countDown(); });  // before the module stops
  module->bindMethod<std::string>("__onResource__", [&](const std::string&) {
    ++calls;
    gate.wait();
  });
  broker->addModule(module);
  WaitForRun first(r0, makeOwner("w0", "W0"), 1), second(r1, makeOwner("w1", "W1"), 1);
  WaitForRun unlimited(r2, makeOwner("w2", "W2"), INT_MIN);
  ASSERT_TRUE(zutest::waitUntil([&] { return module->startedTasks() == 3; }));
  // The first call must be running (held at the gate) before the module goes:
  // on a loaded machine the task thread may not have picked it up yet.
  ASSERT_TRUE(zutest::waitUntil([&] { return calls == 1; }));

  broker->removeModule("H");
  zutest::GuardedThread destroyer([&module] { module.reset(); });  // waits for the running task
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  gate.countDown();
  ASSERT_TRUE(destroyer.joinFor(5000));
  EXPECT_EQ(calls, 1);  // the two queued calls were dropped

  EXPECT_TRUE(waitFailedWith(first.wait(), "resource wait has timeouted on R0"));
  EXPECT_TRUE(waitFailedWith(second.wait(), "resource wait has timeouted on R1"));
  r2->release(h[2]);
  EXPECT_TRUE(waitReturned(unlimited.wait()));
  EXPECT_EQ(waitersLeft(), 0u);
}

TEST_F(HostFaultTest, ModuleThatDropsItsLastHandleInsideItsOwnTask) {
  auto module = boost::make_shared<ZU::ZUModule>("H");
  boost::weak_ptr<ZU::ZUModule> moduleWatch = module;
  ZU::ZUBroker* host = broker.get();
  module->bindMethod<std::string>("__onResource__",
                                  [host](const std::string&) { host->removeModule("H"); });
  broker->addModule(module);
  module.reset();  // the broker's handle is the last one

  EXPECT_TRUE(waitFailedWith(WaitForRun(r0, makeOwner("w", "W"), 0).wait(),
                             "resource wait has timeouted on R0"));
  EXPECT_TRUE(zutest::waitUntil([&] { return moduleWatch.expired(); }));
  r1->release(h[1]);
  EXPECT_TRUE(r1->waitFor(makeOwner("w", "W"), "", 0, {}).empty());
}

}  // namespace
