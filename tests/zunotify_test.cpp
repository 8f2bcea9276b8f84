// Conflict notifications through a real in-process broker. A missing holder
// module or a gone broker are host-fault tests.
#include <algorithm>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuownerstrong.h>

#include "support/asyncrun.h"
#include "support/recordingmodule.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ZU::ZUOwnerStrong;
using zutest::ConflictRun;
using zutest::waitFailed;

namespace {

const std::string kTimedOut = ZU::contract::waitTimedOut("Head");

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

TEST_F(NotifyTest, ARefusedNotificationPrintsOneLineAndTheWaitGoesOnToItsLimit) {
  auto intModule = boost::make_shared<ZU::ZUModule>("IntModule");
  intModule->bindMethod<int>("__onResource__", [](const int&) {});
  broker->addModule(intModule);
  auto intHolder = strong("box/i", "IntModule");
  intHolder->setParentBroker(broker);

  testing::internal::CaptureStdout();
  EXPECT_TRUE(waitFailed(ConflictRun(*intHolder, "Head", requester, 0).wait(), kTimedOut));
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
  EXPECT_THAT(out, HasSubstr("When trying to call module 'IntModule' function '__onResource__' "
                             "parameter #1 is of type string instead of type int"));
  EXPECT_EQ(intModule->startedTasks(), 0);
}

}  // namespace
