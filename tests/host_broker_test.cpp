// The in-process broker and modules: lookup, asynchronous calls run in order
// in the module's thread, and modules going away with work queued.
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

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Ne;
using zutest::Latch;
using ZU::ZUError;
using ZU::ZUModule;

namespace {

class BrokerTest : public ::testing::Test {
 protected:
  // Module "M" offers "step": it records the call, and the step named
  // "block" signals blockStarted and waits for blockMayEnd.
  BrokerTest() {
    module->bindMethod<std::string>("step", [this](const std::string& name) {
      {
        std::lock_guard<std::mutex> lock(mutex);
        steps.push_back(name);
        threads.push_back(std::this_thread::get_id());
      }
      if (name != "block") return;
      blockStarted.countDown();
      blockMayEnd.wait();
    });
    broker.addModule(module);
  }
  std::vector<std::string> stepsSeen() {
    std::lock_guard<std::mutex> lock(mutex);
    return steps;
  }

  // Declared first, so that they outlive the module's task thread.
  std::mutex mutex;
  std::vector<std::string> steps;        // guarded by mutex
  std::vector<std::thread::id> threads;  // guarded by mutex
  Latch blockStarted, blockMayEnd;
  ZU::ZUBroker broker;
  boost::shared_ptr<ZUModule> module = boost::make_shared<ZUModule>("M");
};

TEST_F(BrokerTest, PCallReturnsAtOnceAndTasksRunInOrderInTheModuleThread) {
  EXPECT_THROW(broker.getProxy("Nobody", 0), ZUError);
  auto proxy = broker.getProxy("M", 0);
  EXPECT_EQ(proxy->pCall<std::string>("step", "block"), 1);  // returns while it blocks
  EXPECT_EQ(proxy->pCall<std::string>("step", "b"), 2);
  EXPECT_EQ(proxy->pCall<std::string>("step", "c"), 3);
  blockMayEnd.countDown();
  module->waitIdle();
  EXPECT_THAT(stepsSeen(), ElementsAre("block", "b", "c"));
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_THAT(threads, Each(Ne(std::this_thread::get_id())));
  EXPECT_THAT(threads, Each(threads[0]));
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
  ASSERT_TRUE(blockStarted.waitFor(5000));
  Latch destroying;
  zutest::GuardedThread destroyer([&] {
    destroying.countDown();
    module.reset();  // waits for the running task
  });
  destroying.wait();
  ko::os::msleep(200);  // let the destructor clear the queue
  blockMayEnd.countDown();
  ASSERT_TRUE(destroyer.joinFor(5000));
  EXPECT_THAT(stepsSeen(), ElementsAre("block"));
  EXPECT_THROW(proxy->pCall<std::string>("step", "late"), ZUError);  // the module is gone
}

TEST_F(BrokerTest, DroppingTheLastHandleInsideItsOwnTaskIsSafe) {
  auto done = std::make_shared<Latch>();
  auto last = std::make_shared<boost::shared_ptr<ZUModule>>(module);
  module->bindMethod<std::string>("drop", [last, done](const std::string&) {
    last->reset();
    done->countDown();
  });
  module->post<std::string>("step", "block");  // holds the queue until we let go
  module->post<std::string>("drop", "");
  broker.removeModule("M");
  module.reset();  // `last` holds the only handle now, shared with the method
  blockMayEnd.countDown();
  EXPECT_TRUE(done->waitFor(5000));
}

}  // namespace
