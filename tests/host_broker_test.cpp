// The in-process broker: lookup, asynchronous calls run in order in the
// module's own thread (waited for with or without a limit), refused calls
// start no task, and a module may drop the last handle on itself inside its
// own call.
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zuhost/zubroker.h>

#include "support/threads.h"

using ::testing::ElementsAre;
using ZU::ZUError;

namespace {

TEST(Broker, PCallReturnsAtOnceRunsTasksInOrderInTheModuleThreadAndRefusesWrongCalls) {
  std::mutex mutex;  // declared before the module, so that it outlives the task thread
  std::vector<std::string> steps;        // guarded by mutex
  std::vector<std::thread::id> threads;  // guarded by mutex
  zutest::Latch mayEnd;
  ZU::ZUBroker broker;
  auto module = boost::make_shared<ZU::ZUModule>("M");
  module->bindMethod<std::string>("step", [&](const std::string& name) {
    if (name == "block") mayEnd.wait();
    std::lock_guard<std::mutex> lock(mutex);
    steps.push_back(name);
    threads.push_back(std::this_thread::get_id());
  });
  broker.addModule(module);

  EXPECT_THROW(broker.getProxy("Nobody", 0), ZUError);
  auto proxy = broker.getProxy("M", 0);
  EXPECT_THROW(proxy->pCall<int>("step", 5), ZUError);
  EXPECT_THROW(proxy->pCall<std::string>("__onResource__", "Head"), ZUError);
  EXPECT_EQ(proxy->pCall<std::string>("step", "block"), 1);  // returns while it blocks
  EXPECT_EQ(proxy->pCall<std::string>("step", "b"), 2);
  EXPECT_FALSE(module->waitIdleFor(std::chrono::milliseconds(20)));  // "block" runs
  mayEnd.countDown();
  EXPECT_TRUE(module->waitIdleFor(std::chrono::seconds(60)));
  std::lock_guard<std::mutex> lock(mutex);
  ASSERT_THAT(steps, ElementsAre("block", "b"));
  EXPECT_EQ(module->startedTasks(), 2);  // none for the refused calls
  EXPECT_THAT(threads, ElementsAre(threads[0], threads[0]));
  EXPECT_NE(threads[0], std::this_thread::get_id());
}

// The module's thread cannot join itself: when the last handle goes inside
// its own task, the thread is let go and ends after that task.
TEST(Broker, ModuleThatDropsItsLastHandleInsideItsOwnCallEndsAfterIt) {
  ZU::ZUBroker broker;
  auto called = std::make_shared<zutest::Latch>(), left = std::make_shared<zutest::Latch>();
  auto module = boost::make_shared<ZU::ZUModule>("M");
  module->bindMethod<std::string>("leave", [&broker, called, left](const std::string&) {
    called->wait();            // until the caller's handles are gone
    broker.removeModule("M");  // the broker's handle was the last one
    left->countDown();
  });
  broker.addModule(module);
  module.reset();
  broker.getProxy("M", 0)->pCall<std::string>("leave", "");
  called->countDown();
  EXPECT_TRUE(left->waitFor(5000));
  EXPECT_FALSE(broker.getModule("M"));
}

}  // namespace
