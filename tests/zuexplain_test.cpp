// Each answer of explain() is checked against what waitFor then does in the
// same state.
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zuexplain.h>
#include <zuresource/zuresourcelist.h>
#include <zuresource/zuresourcestate.h>
#include <zuresource/zuwaitregistry.h>

#include "support/guardedthread.h"
#include "support/recordingmodule.h"
#include "support/recordingresource.h"
#include "support/resourcehelpers.h"
#include "support/scriptedowner.h"
#include "support/stopwatch.h"

using namespace ZU;
using Answer = ZUExplanation::Answer;
using zutest::errorOf;
using zutest::makeGroup;
using zutest::makeOwner;
using zutest::waitUntil;

namespace {

using Names = std::vector<std::string>;

const long kPollMs = ZUOwnerStrong::kPollPeriodMs;

std::string timeoutOn(const std::string& resource) {
  return "resource wait has timeouted on " + resource;
}

// The description of the ZUError that `action` throws ("" for none).
std::string failureOf(const std::function<void()>& action) {
  auto error = errorOf(action);
  return error ? error->getDescription() : "";
}

class ZUExplainTest : public ::testing::Test {
 protected:
  // `c` waits for `resource` in a thread of its own until the test ends.
  void startWaiting(const boost::shared_ptr<ZUResource>& resource) {
    waiting_.reset(new zutest::GuardedThread(
        [resource, this] { errorOf([&] { resource->waitFor(c, "", -1, {}); }); }));
    ASSERT_TRUE(waitUntil([] { return ZUWaitRegistry::snapshot().size() == 1; }));
  }
  void TearDown() override {
    c->freeResource();
    if (waiting_) {
      EXPECT_TRUE(waiting_->joinFor(5000));
    }
  }

  boost::shared_ptr<ZUResource> arm = boost::make_shared<ZUResource>("Arm", nullptr);
  boost::shared_ptr<ZUResourceState> standing =
      boost::make_shared<ZUResourceState>("Standing", nullptr);
  boost::shared_ptr<ZUOwner> a = makeOwner("a", "A");
  boost::shared_ptr<ZUOwner> b = makeOwner("b", "B");
  boost::shared_ptr<ZUOwner> c = makeOwner("c", "C");

 private:
  std::unique_ptr<zutest::GuardedThread> waiting_;
};

// --- Plain resources ---------------------------------------------------------------

TEST_F(ZUExplainTest, AnswersThatNeedNoWaitMatchWhatWaitForDoes) {
  auto box = makeOwner("box", "Box");
  EXPECT_EQ(Answer::Takes, explain(arm, box, {"Arm"}).answer);  // listed, but free
  ASSERT_TRUE(arm->waitFor(box, "", 0, {"Arm"}).empty());
  EXPECT_TRUE(arm->isResourceOwned("Box"));

  auto sameName = makeOwner("box", "OtherModule");
  EXPECT_EQ(Answer::AlreadyHeld, explain(arm, sameName).answer);
  ASSERT_TRUE(arm->waitFor(sameName, "", 0, {}).empty());
  EXPECT_TRUE(arm->isResourceOwned("Box"));  // nothing changed hands

  EXPECT_EQ(Answer::GivesUp, explain(arm, a, {"Leg", "Arm"}).answer);
  EXPECT_EQ(Names{"Arm"}, arm->waitFor(a, "", -1, {"Leg", "Arm"}));

  auto child = makeOwner("box/child", "Child");
  ZUExplanation e = explain(arm, child);
  EXPECT_EQ(Answer::HandedDown, e.answer);
  EXPECT_EQ("box", e.holder);
  EXPECT_FALSE(e.wouldWait());
  zutest::Stopwatch watch;
  ASSERT_TRUE(arm->waitFor(child, "", 0, {}).empty());
  EXPECT_LT(watch.elapsedMs(), kPollMs);
  EXPECT_TRUE(arm->isResourceOwned("Child"));
}

TEST_F(ZUExplainTest, OtherStrongHolderMakesTheOwnerWaitBehindEarlierWaiters) {
  auto broker = boost::make_shared<ZUBroker>();
  zutest::RecordingModule module(broker, "B");
  b->setParentBroker(broker);
  ASSERT_TRUE(arm->waitFor(b, "", 0, {}).empty());
  startWaiting(arm);  // holds waitMutex while it waits
  ASSERT_TRUE(waitUntil([&] { return module.calls().size() == 1; }));
  const ZUValue waitersBefore = b->copyWaiters();

  ZUExplanation e = explain(arm, a);
  EXPECT_EQ(Answer::Waits, e.answer);
  EXPECT_TRUE(e.wouldWait());
  EXPECT_EQ(
      "Arm: held by b (module B): a would wait behind it, after [\"C\"]; "
      "B is told \"__onResource__\"",
      e.toString());
  // Asking changed nothing: no waiter, no notification.
  EXPECT_EQ(waitersBefore, b->copyWaiters());
  EXPECT_EQ(1u, module.calls().size());

  EXPECT_EQ(timeoutOn("Arm"), failureOf([&] { arm->waitFor(a, "", 0, {}); }));
  module.waitIdle();
  EXPECT_EQ((Names{"Arm", "Arm"}), module.calls());
}

TEST_F(ZUExplainTest, StoppedOwnerWouldFailItsWaitAtTheFirstPoll) {
  ASSERT_TRUE(arm->waitFor(b, "", 0, {}).empty());
  a->freeResource();  // as when it released something earlier
  ZUExplanation e = explain(arm, a);
  EXPECT_EQ(Answer::Waits, e.answer);
  EXPECT_TRUE(e.ownerStopped);

  EXPECT_EQ("box stop while waiting", failureOf([&] { arm->waitFor(a, "", -1, {}); }));
}

TEST_F(ZUExplainTest, StrayWeakHolderMakesTheOwnerRetryUntilTheHolderChanges) {
  auto stray = boost::make_shared<ZUOwnerWeak>("stray", "Stray");
  arm->switchOwner(stray, "", 0);
  ZUExplanation e = explain(arm, a);
  EXPECT_EQ(Answer::Retries, e.answer);
  EXPECT_TRUE(e.wouldWait());

  std::atomic<bool> returned(false);
  zutest::GuardedThread acquiring([&] {
    EXPECT_TRUE(arm->waitFor(a, "", -1, {}).empty());
    returned = true;
  });
  EXPECT_FALSE(waitUntil([&] { return returned.load(); }, 300));
  arm->switchOwner(arm->emptyOwner, "", 0);
  ASSERT_TRUE(acquiring.joinFor(5000));
  EXPECT_TRUE(arm->isResourceOwned("A"));
}

TEST_F(ZUExplainTest, OwnersAndResourcesOfOtherClassesDecideThemselves) {
  arm->switchOwner(zutest::ScriptedOwner::create("scripted", "Scripted"), "", 0);
  EXPECT_EQ(Answer::HolderDecides, explain(arm, a).answer);
  auto recording = boost::make_shared<zutest::RecordingResource>(
      "Leg", boost::make_shared<zutest::CallLog>());
  EXPECT_EQ(Answer::ResourceDecides, explain(recording, a).answer);
  EXPECT_TRUE(errorOf([&] { explain(nullptr, a); }));
  EXPECT_TRUE(errorOf([&] { explain(arm, nullptr); }));
}

// --- State resources ---------------------------------------------------------------

TEST_F(ZUExplainTest, ActivatedStateIsGrantedAndCountsItsHolders) {
  standing->setState(true);
  ASSERT_TRUE(standing->waitFor(b, "", 0, {}).empty());
  ZUExplanation e = explain(standing, a, {"Standing"});
  EXPECT_EQ(Answer::Granted, e.answer);
  EXPECT_EQ(1u, e.holders);

  EXPECT_TRUE(standing->waitFor(a, "", 0, {"Standing"}).empty());
  EXPECT_EQ(2u, explain(standing, a).holders);
}

TEST_F(ZUExplainTest, InactiveStateMakesTheOwnerAwaitActivationBehindEarlierWaiters) {
  startWaiting(standing);
  ZUExplanation e = explain(standing, a);
  EXPECT_EQ(Answer::AwaitsActivation, e.answer);
  EXPECT_EQ("Standing", e.holder);
  EXPECT_EQ(Names{"C"}, e.waiters);
  EXPECT_FALSE(e.notifies);
  EXPECT_EQ("Standing: not activated: a would wait for activation, after [\"C\"]",
            e.toString());

  EXPECT_EQ(timeoutOn("Standing"), failureOf([&] { standing->waitFor(a, "", 0, {}); }));
}

TEST_F(ZUExplainTest, InactiveStateGivesUpWhenListedAndGrantsDescendantsOfItsOwner) {
  EXPECT_EQ(Answer::GivesUp, explain(standing, a, {"Standing"}).answer);
  EXPECT_EQ(Names{"Standing"}, standing->waitFor(a, "", -1, {"Standing"}));

  auto child = makeOwner("Standing/child", "Child");
  EXPECT_EQ(Answer::HandedDown, explain(standing, child).answer);
  EXPECT_TRUE(standing->waitFor(child, "", 0, {}).empty());
  EXPECT_EQ(Names{"Standing/child"}, zutest::holderNames(*standing));
}

// --- Groups ------------------------------------------------------------------------

TEST_F(ZUExplainTest, GroupAnswersPerMemberAndNamesTheFirstWait) {
  auto leg = boost::make_shared<ZUResource>("Leg", nullptr);
  auto head = boost::make_shared<ZUResource>("Head", nullptr);
  ASSERT_TRUE(arm->waitFor(b, "", 0, {}).empty());
  auto inner = makeGroup("Upper", {head, arm});
  auto group = makeGroup("Body", {leg, inner, standing});

  ZUExplanation e = explain(group, a);
  EXPECT_EQ(Answer::Group, e.answer);
  ASSERT_EQ(3u, e.members.size());
  EXPECT_EQ(Answer::Takes, e.members[0].answer);
  EXPECT_EQ(Answer::Group, e.members[1].answer);
  EXPECT_EQ(1, e.members[1].firstWait);
  EXPECT_EQ(Answer::Waits, e.members[1].members[1].answer);
  EXPECT_EQ(Answer::AwaitsActivation, e.members[2].answer);
  EXPECT_EQ(1, e.firstWait);
  EXPECT_EQ(0u, e.toString().find("Body: group, first wait at Upper {Leg: free; a would take it"
                                  " | Upper: group, first wait at Arm {Head: free"));

  // The walk takes Leg and Head, fails on Arm, and gives everything back.
  EXPECT_EQ(timeoutOn("Arm"), failureOf([&] { group->waitFor(a, "", 0, {}); }));
  EXPECT_TRUE(leg->isResourceFree());
  EXPECT_TRUE(head->isResourceFree());
}

TEST_F(ZUExplainTest, GroupWithoutAWaitIsTakenWhole) {
  auto group = makeGroup("Body", {arm});
  ZUExplanation e = explain(group, a);
  EXPECT_EQ(-1, e.firstWait);
  EXPECT_FALSE(e.wouldWait());
  EXPECT_EQ(
      "[[\"resource\",\"Body\"],[\"answer\",\"group\"],[\"owner\",\"a\"],[\"firstWait\",\"-1\"],"
      "[\"members\",[[[\"resource\",\"Arm\"],[\"answer\",\"takes\"],[\"owner\",\"a\"],"
      "[\"holder\",\"emptyOwner\"],[\"holderModule\",\"emptyOwner\"]]]]]",
      e.toValue().serializeToText());
  EXPECT_TRUE(group->waitFor(a, "", 0, {}).empty());
  EXPECT_TRUE(arm->isResourceOwned("A"));
}

TEST_F(ZUExplainTest, GroupWithAnAbortRequestedGivesEverythingBack) {
  ASSERT_TRUE(arm->waitFor(a, "", 0, {}).empty());
  auto group = makeGroup("Body", {arm});
  group->setAbortRequested(true);
  EXPECT_EQ(Answer::Aborts, explain(group, a).answer);

  EXPECT_TRUE(group->waitFor(a, "", 0, {}).empty());
  EXPECT_TRUE(arm->isResourceFree());
}

}  // namespace
