// The in-process broker: lookup, asynchronous calls run in order in the
// module's own thread, and refused calls start no task.
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zuhost/zubroker.h>

#include "support/latch.h"

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
  mayEnd.countDown();
  module->waitIdle();
  std::lock_guard<std::mutex> lock(mutex);
  ASSERT_THAT(steps, ElementsAre("block", "b"));
  EXPECT_EQ(module->startedTasks(), 2);  // none for the refused calls
  EXPECT_THAT(threads, ElementsAre(threads[0], threads[0]));
  EXPECT_NE(threads[0], std::this_thread::get_id());
}

}  // namespace
