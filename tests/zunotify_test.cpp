// Conflict notifications through a real in-process broker, and the two
// editor hooks. A holder module missing from the broker is a host-fault test.
#include <algorithm>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zuresource/zuownerstrong.h>

#include "support/conflictrun.h"
#include "support/logcapture.h"
#include "support/recordingmodule.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ZU::ZUOwnerStrong;
using zutest::ConflictRun;
using zutest::waitFailed;

namespace {

const char* const kTimedOut = "resource wait has timeouted on Head";

class NotifyTest : public ::testing::Test {
 protected:
  NotifyTest() { holder->setParentBroker(broker); }

  static boost::shared_ptr<ZUOwnerStrong> strong(const std::string& name,
                                                 const std::string& module) {
    return boost::make_shared<ZUOwnerStrong>(name, module, nullptr);
  }

  boost::shared_ptr<ZU::ZUBroker> broker = boost::make_shared<ZU::ZUBroker>();
  zutest::RecordingModule module{broker, "HolderModule"};
  boost::shared_ptr<ZUOwnerStrong> holder = strong("box/h", "HolderModule");
  boost::shared_ptr<ZUOwnerStrong> requester = strong("box/q", "RequesterModule");
};

TEST_F(NotifyTest, EachWaitSendsOneOnResourceWithTheResourceNameAndAHandDownNone) {
  EXPECT_TRUE(holder->conflict("Legs", strong("box/h/child", "ChildModule"), 0));
  module.onResource([this](const std::string&) { holder->freeResource(); });
  for (const char* resource : {"Head", "LArm"}) {
    const zutest::ConflictOutcome outcome = ConflictRun(*holder, resource, requester, -1).wait();
    EXPECT_FALSE(outcome.result || outcome.error) << "the module let go: the wait ends";
  }
  module.waitIdle();
  EXPECT_THAT(module.calls(), ElementsAre("Head", "LArm"));
}

TEST_F(NotifyTest, NoBrokerOrAGoneBrokerSendsNothingAndARefusedCallPrintsOneLine) {
  auto goneBroker = boost::make_shared<ZU::ZUBroker>();
  zutest::RecordingModule goneModule(goneBroker, "OrphanModule");
  auto orphan = strong("box/o", "OrphanModule");
  orphan->setParentBroker(goneBroker);
  goneBroker.reset();
  auto unlinked = strong("box/u", "HolderModule");  // its module exists, but no link
  auto intModule = boost::make_shared<ZU::ZUModule>("IntModule");
  intModule->bindMethod<int>("__onResource__", [](const int&) {});
  broker->addModule(intModule);
  auto intHolder = strong("box/i", "IntModule");
  intHolder->setParentBroker(broker);

  testing::internal::CaptureStdout();
  {
    ConflictRun orphanRun(*orphan, "Head", requester, 0);
    ConflictRun unlinkedRun(*unlinked, "Head", strong("box/r", "R"), 0);
    ConflictRun intRun(*intHolder, "Head", strong("box/s", "S"), 0);
    for (ConflictRun* run : {&orphanRun, &unlinkedRun, &intRun})
      EXPECT_TRUE(waitFailed(run->wait(), kTimedOut)) << "the waits go on to their limit";
  }
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
  EXPECT_EQ(out.back(), '\n');
  EXPECT_THAT(out, HasSubstr("call/pCall"));
  EXPECT_THAT(out, HasSubstr("When trying to call module 'IntModule' function '__onResource__' "
                             "parameter #1 is of type string instead of type int"));
  for (auto* m : {goneModule.module().get(), module.module().get(), intModule.get()})
    EXPECT_EQ(m->startedTasks(), 0);
}

TEST_F(NotifyTest, EditorHooksLogOneRecordEach) {
  zutest::LogCapture capture;
  holder->notifyConflictVantor(requester, 5);
  holder->notifyEndConflictVantor(nullptr, -1);
  const std::vector<ko::log::Record> records = capture.records();
  ASSERT_EQ(records.size(), 2u);
  const char* const messages[] = {"unimplemented notifyConflictVantor\n",
                                  "unimplemented notifyEndConflictVantor"};
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(records[i].message, messages[i]);
    EXPECT_EQ(records[i].level, 3);
    EXPECT_EQ(records[i].category, "behavior.zuressource");
  }
}

}  // namespace
