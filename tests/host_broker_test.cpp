// The in-process broker and modules: lookup, asynchronous calls run in order
// in the module's thread, and modules going away with work queued.
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zuhost/zubroker.h>
#include <zuhost/zuos.h>

#include "support/guardedthread.h"
#include "support/latch.h"

using ::testing::ElementsAre;
using zutest::GuardedThread;
using zutest::Latch;
using ZU::ZUError;
using ZU::ZUModule;

namespace {

/// What a module's "step" method saw. Shared with the module's task, which
/// may outlive the test's stack.
struct Steps {
  std::mutex mutex;
  std::vector<std::string> names;               // guarded by mutex
  std::vector<std::thread::id> threads;         // guarded by mutex
  Latch blockStarted, blockMayEnd;

  /// Binds "step" on `module`: records the call; the step named "block" then
  /// signals blockStarted and waits for blockMayEnd.
  static std::shared_ptr<Steps> bind(ZUModule& module) {
    auto steps = std::make_shared<Steps>();
    module.bindMethod<std::string>("step", [steps](const std::string& name) {
      {
        std::lock_guard<std::mutex> lock(steps->mutex);
        steps->names.push_back(name);
        steps->threads.push_back(std::this_thread::get_id());
      }
      if (name != "block") return;
      steps->blockStarted.countDown();
      steps->blockMayEnd.wait();
    });
    return steps;
  }
  std::vector<std::string> seen() {
    std::lock_guard<std::mutex> lock(mutex);
    return names;
  }
};

class BrokerTest : public ::testing::Test {
 protected:
  BrokerTest() { broker.addModule(module); }
  ZU::ZUBroker broker;
  boost::shared_ptr<ZUModule> module = boost::make_shared<ZUModule>("M");
  std::shared_ptr<Steps> steps = Steps::bind(*module);
};

TEST_F(BrokerTest, GetProxyOfAnUnknownModuleThrows) {
  try {
    broker.getProxy("Nobody", 0);
    FAIL() << "no error";
  } catch (const ZUError& e) {
    EXPECT_EQ(e.getModule(), "ZUBroker");
    EXPECT_EQ(e.getMethod(), "getProxy");
  }
  EXPECT_EQ(broker.getProxy("M", 0)->getModuleName(), "M");
}

TEST_F(BrokerTest, PCallReturnsAtOnceAndTasksRunInOrderInTheModuleThread) {
  auto proxy = broker.getProxy("M", 0);
  EXPECT_EQ(proxy->pCall<std::string>("step", "block"), 1);  // returns while it blocks
  EXPECT_EQ(proxy->pCall<std::string>("step", "b"), 2);
  EXPECT_EQ(proxy->pCall<std::string>("step", "c"), 3);
  steps->blockMayEnd.countDown();
  module->waitIdle();
  EXPECT_THAT(steps->seen(), ElementsAre("block", "b", "c"));
  std::lock_guard<std::mutex> lock(steps->mutex);
  EXPECT_NE(steps->threads[0], std::this_thread::get_id());
  EXPECT_THAT(steps->threads, ElementsAre(steps->threads[0], steps->threads[0], steps->threads[0]));
}

TEST_F(BrokerTest, PCallRefusesAMissingMethodOrAnotherParameterType) {
  auto proxy = broker.getProxy("M", 0);
  try {
    proxy->pCall<int>("step", 5);
    FAIL() << "no error";
  } catch (const ZUError& e) {
    EXPECT_EQ(e.getModule(), "ZUProxy");
    EXPECT_EQ(e.getMethod(), "call/pCall");
    EXPECT_EQ(e.getDescription(),
              "When trying to call module 'M' function 'step' parameter #1 is of type int "
              "instead of type string");
  }
  EXPECT_THROW(proxy->pCall<std::string>("__onResource__", "Head"), ZUError);
  EXPECT_EQ(module->startedTasks(), 0);
}

TEST_F(BrokerTest, DestroyingAModuleDropsItsQueuedTasks) {
  auto proxy = broker.getProxy("M", 0);
  proxy->pCall<std::string>("step", "block");
  proxy->pCall<std::string>("step", "dropped");
  broker.removeModule("M");
  ASSERT_TRUE(steps->blockStarted.waitFor(5000));
  Latch destroying;
  GuardedThread destroyer([&] {
    destroying.countDown();
    module.reset();  // waits for the running task
  });
  destroying.wait();
  ko::os::msleep(200);  // let the destructor clear the queue
  steps->blockMayEnd.countDown();
  ASSERT_TRUE(destroyer.joinFor(5000));
  EXPECT_THAT(steps->seen(), ElementsAre("block"));
  EXPECT_THROW(proxy->pCall<std::string>("step", "late"), ZUError);  // the module is gone
}

TEST_F(BrokerTest, DroppingTheLastHandleInsideItsOwnTaskIsSafe) {
  auto done = std::make_shared<Latch>();
  auto last = std::make_shared<boost::shared_ptr<ZUModule>>(module);
  (*last)->bindMethod<std::string>("drop", [last, done](const std::string&) {
    last->reset();
    done->countDown();
  });
  broker.removeModule("M");
  module.reset();
  // `last` now holds the only handle, shared with the method itself.
  boost::shared_ptr<ZUModule>(*last)->post<std::string>("drop", "");
  EXPECT_TRUE(done->waitFor(5000));
}

}  // namespace
