// Each answer of explain() is checked against what waitFor then does in the same state.
#include <memory>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuexplain.h>
#include <zuresource/zuwaitregistry.h>

#include "support/asyncrun.h"
#include "support/recordingmodule.h"
#include "support/resourcehelpers.h"

using namespace ZU;
using Answer = ZUExplanation::Answer;
using zutest::makeGroup;
using zutest::makeOwner;
using zutest::waitUntil;

namespace {

using Names = std::vector<std::string>;

// Whether explain() gives `answer`, and waitFor, called next in the same state,
// does `outcome`: returns these names (joined) or fails with this text.
::testing::AssertionResult answersThenDoes(Answer answer, const std::string& outcome,
                                           const boost::shared_ptr<ZUResource>& resource,
                                           const boost::shared_ptr<ZUOwner>& owner,
                                           const Names& noWait = {}, int timeout = 0) {
  const ZUExplanation e = explain(resource, owner, noWait);
  std::string did;
  const auto error = zutest::errorOf([&] {
    for (const std::string& name : resource->waitFor(owner, "", timeout, noWait)) did += name;
  });
  if (error) did = error->getDescription();
  if (e.answer == answer && did == outcome) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "explained " << answerName(e.answer) << ", did '" << did << "'";
}

class ZUExplainTest : public ::testing::Test {
 protected:
  // `c` waits for `resource` until the test ends.
  void startWaiting(const boost::shared_ptr<ZUResource>& resource) {
    waiting_.reset(new zutest::WaitForRun(resource, c, -1));
    ASSERT_TRUE(waitUntil([] { return ZUWaitRegistry::snapshot().size() == 1; }));
  }
  void TearDown() override {
    c->freeResource();
    waiting_.reset();
  }

  boost::shared_ptr<ZUResource> arm = boost::make_shared<ZUResource>("Arm", nullptr);
  boost::shared_ptr<ZUResourceState> standing =
      boost::make_shared<ZUResourceState>("Standing", nullptr);
  boost::shared_ptr<ZUOwner> a = makeOwner("a", "A"), b = makeOwner("b", "B"),
                             c = makeOwner("c", "C");
  std::unique_ptr<zutest::WaitForRun> waiting_;
};

TEST_F(ZUExplainTest, PlainAnswersMatchWhatWaitForDoes) {
  // Listed, but free.
  EXPECT_TRUE(answersThenDoes(Answer::Takes, "", arm, makeOwner("box", "Box"), {"Arm"}));
  EXPECT_TRUE(answersThenDoes(Answer::AlreadyHeld, "", arm, makeOwner("box", "OtherModule")));
  EXPECT_TRUE(answersThenDoes(Answer::GivesUp, "Arm", arm, a, {"Leg", "Arm"}, -1));
  a->freeResource();  // as when it released something earlier: its flag is set
  EXPECT_TRUE(answersThenDoes(Answer::Waits, ZU::contract::kStopWhileWaiting, arm, a, {}, -1));

  EXPECT_TRUE(answersThenDoes(Answer::HandedDown, "", arm, makeOwner("box/child", "Child")));
}

TEST_F(ZUExplainTest, OtherStrongHolderMakesTheOwnerWaitBehindEarlierWaiters) {
  auto broker = boost::make_shared<ZUBroker>();
  zutest::RecordingModule module(broker, "B");
  b->setParentBroker(broker);
  ASSERT_TRUE(arm->waitFor(b, "", 0, {}).empty());
  startWaiting(arm);  // holds waitMutex while it waits
  ASSERT_TRUE(waitUntil([&] { return module.calls().size() == 1; }));
  const ZUValue waitersBefore = b->copyWaiters();

  EXPECT_EQ(
      "Arm: held by b (module B): a would wait behind it, after [\"C\"]; "
      "B is told \"__onResource__\"",
      explain(arm, a).toString());
  EXPECT_EQ(waitersBefore, b->copyWaiters());  // asking added no waiter, told nobody
  EXPECT_EQ(1u, module.calls().size());

  EXPECT_TRUE(answersThenDoes(Answer::Waits, ZU::contract::waitTimedOut("Arm"), arm, a));
  module.waitIdle();
  EXPECT_EQ((Names{"Arm", "Arm"}), module.calls());
}

TEST_F(ZUExplainTest, StrayWeakHolderMakesTheOwnerRetryUntilTheHolderChanges) {
  arm->switchOwner(boost::make_shared<ZUOwnerWeak>("stray", "Stray"), "", 0);
  EXPECT_EQ(Answer::Retries, explain(arm, a).answer);
  zutest::WaitForRun acquiring(arm, a, -1);
  EXPECT_FALSE(waitUntil([&] { return !acquiring.running(); }, 300));
  arm->switchOwner(arm->emptyOwner, "", 0);
  EXPECT_TRUE(zutest::waitReturned(acquiring.wait()));
  EXPECT_TRUE(arm->isResourceOwned("A"));
}

TEST_F(ZUExplainTest, StateAnswersMatchWhatWaitForDoes) {
  startWaiting(standing);
  EXPECT_EQ("Standing: not activated: a would wait for activation, after [\"C\"]",
            explain(standing, a).toString());
  EXPECT_TRUE(answersThenDoes(Answer::AwaitsActivation, ZU::contract::waitTimedOut("Standing"),
                              standing, a));
  EXPECT_TRUE(answersThenDoes(Answer::GivesUp, "Standing", standing, a, {"Standing"}, -1));
  EXPECT_TRUE(answersThenDoes(Answer::HandedDown, "", standing, makeOwner("Standing/child", "C")));

  standing->setState(true);  // grants c as well
  ASSERT_TRUE(waitUntil([&] { return zutest::holderNames(*standing).size() == 2; }));
  EXPECT_TRUE(answersThenDoes(Answer::Granted, "", standing, a, {"Standing"}));
}

TEST_F(ZUExplainTest, GroupAnswersPerMemberMatchWhatTheWalkDoes) {
  auto head = boost::make_shared<ZUResource>("Head", nullptr);
  ASSERT_TRUE(arm->waitFor(b, "", 0, {}).empty());
  auto group = makeGroup("Body", {makeGroup("Upper", {head, arm}), standing});
  EXPECT_EQ(
      "Body: group, first wait at Upper {Upper: group, first wait at Arm {Head: free; a would "
      "take it | Arm: held by b (module B): a would wait behind it, after []} | Standing: not "
      "activated: a would wait for activation, after []}",
      explain(group, a).toString());
  EXPECT_TRUE(answersThenDoes(Answer::Group, ZU::contract::waitTimedOut("Arm"), group, a));

  arm->release(b);
  standing->setState(true);
  EXPECT_TRUE(answersThenDoes(Answer::Group, "", group, a));
  group->setAbortRequested(true);
  EXPECT_TRUE(answersThenDoes(Answer::Aborts, "", group, a));
}

}  // namespace
