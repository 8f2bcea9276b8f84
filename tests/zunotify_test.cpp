// Conflict notifications through a real in-process broker, and the two
// editor hooks.
#include <algorithm>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zuresource/zuownerstrong.h>

#include "support/conflictrun.h"
#include "support/logcapture.h"
#include "support/recordingmodule.h"
#include "support/resourcehelpers.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ZU::ZUOwnerStrong;
using zutest::ConflictRun;
using zutest::waitFailed;

namespace {

class NotifyTest : public ::testing::Test {
 protected:
  NotifyTest() { holder->setParentBroker(broker); }
  void TearDown() override { module.waitIdle(); }

  static boost::shared_ptr<ZUOwnerStrong> strong(const std::string& name,
                                                 const std::string& moduleName) {
    return boost::make_shared<ZUOwnerStrong>(name, moduleName, nullptr);
  }

  boost::shared_ptr<ZU::ZUBroker> broker = boost::make_shared<ZU::ZUBroker>();
  zutest::RecordingModule module{broker, "HolderModule"};
  boost::shared_ptr<ZUOwnerStrong> holder = strong("box/h", "HolderModule");
  boost::shared_ptr<ZUOwnerStrong> requester = strong("box/q", "RequesterModule");
};

TEST_F(NotifyTest, EachWaitSendsOneOnResourceWithTheResourceName) {
  module.onResource([this](const std::string&) { holder->freeResource(); });
  for (const char* resource : {"Head", "LArm"}) {
    ConflictRun run(*holder, resource, requester, -1);
    const zutest::ConflictOutcome outcome = run.wait();
    EXPECT_FALSE(outcome.result || outcome.error) << "the module let go: the wait ends";
  }
  module.waitIdle();
  EXPECT_THAT(module.calls(), ElementsAre("Head", "LArm"));
}

TEST_F(NotifyTest, NoBrokerOrAGoneBrokerSendsNothing) {
  auto goneBroker = boost::make_shared<ZU::ZUBroker>();
  zutest::RecordingModule goneModule(goneBroker, "OrphanModule");
  auto orphan = strong("box/o", "OrphanModule");
  orphan->setParentBroker(goneBroker);
  goneBroker.reset();
  auto unlinked = strong("box/u", "HolderModule");  // its module exists, but no link

  testing::internal::CaptureStdout();
  ConflictRun orphanRun(*orphan, "Head", requester, 0);
  ConflictRun unlinkedRun(*unlinked, "Head", strong("box/r", "R"), 0);
  EXPECT_TRUE(waitFailed(orphanRun.wait(), "resource wait has timeouted on Head"));
  EXPECT_TRUE(waitFailed(unlinkedRun.wait(), "resource wait has timeouted on Head"));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(goneModule.module()->startedTasks(), 0);
  EXPECT_EQ(module.module()->startedTasks(), 0);
}

TEST_F(NotifyTest, ARefusedCallIsPrintedAsOneLineAndTheWaitGoesOn) {
  auto intModule = boost::make_shared<ZU::ZUModule>("IntModule");
  intModule->bindMethod<int>("__onResource__", [](const int&) {});
  broker->addModule(intModule);
  auto intHolder = strong("box/i", "IntModule");
  intHolder->setParentBroker(broker);

  testing::internal::CaptureStdout();
  ConflictRun run(*intHolder, "Head", requester, 0);
  EXPECT_TRUE(waitFailed(run.wait(), "resource wait has timeouted on Head"));
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1);
  EXPECT_EQ(out.back(), '\n');
  EXPECT_THAT(out, HasSubstr("ZUProxy"));
  EXPECT_THAT(out, HasSubstr("call/pCall"));
  EXPECT_THAT(out, HasSubstr("When trying to call module 'IntModule' function "
                             "'__onResource__' parameter #1 is of type string instead "
                             "of type int"));
  EXPECT_EQ(intModule->startedTasks(), 0);
}

TEST_F(NotifyTest, AHandDownSendsNothing) {
  EXPECT_TRUE(holder->conflict("Head", strong("box/h/child", "ChildModule"), 0));
  EXPECT_EQ(module.module()->startedTasks(), 0);
}

// The lookup fails after the waiter entry was added; the entry goes before
// the error leaves, and the wait's lock is let go.
TEST_F(NotifyTest, AFailedModuleLookupPropagatesAndLeavesNoWaiter) {
  auto ghost = strong("box/g", "NoSuchModule");
  ghost->setParentBroker(broker);
  const auto error = zutest::errorOf([&] { ghost->conflict("Head", requester, 0); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->getModule(), "ZUBroker");
  EXPECT_EQ(error->getMethod(), "getProxy");
  EXPECT_EQ(ghost->copyWaiters().serializeToText(), "[]");
  zutest::GuardedThread destroyer([&ghost] { ghost.reset(); });
  EXPECT_TRUE(destroyer.joinFor(5000)) << "the conflict lock was kept";
}

TEST_F(NotifyTest, EditorHooksLogOneRecordEach) {
  zutest::LogCapture capture;
  holder->notifyConflictVantor(requester, 5);
  holder->notifyEndConflictVantor(nullptr, -1);
  const std::vector<ko::log::Record> records = capture.records();
  ASSERT_EQ(records.size(), 2u);
  const char* const expected[][2] = {
      {"unimplemented notifyConflictVantor\n", "notifyConflictVantor"},
      {"unimplemented notifyEndConflictVantor", "notifyEndConflictVantor"}};
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(records[i].level, 3);
    EXPECT_EQ(records[i].category, "behavior.zuressource");
    EXPECT_EQ(records[i].message, expected[i][0]);
    EXPECT_EQ(records[i].function, expected[i][1]);
    EXPECT_EQ(records[i].file, "");
    EXPECT_EQ(records[i].line, 0);
  }
}

}  // namespace
