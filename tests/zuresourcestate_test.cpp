// The state resource: activation, shared holding, deactivation and reports.

#include <climits>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuhost/zubroker.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuresourcestate.h>

#include "support/asyncrun.h"
#include "support/recordingmodule.h"
#include "support/resourcehelpers.h"
#include "support/threads.h"

namespace {

using Names = std::vector<std::string>;
using zutest::errorOf;
using zutest::makeOwner;

class StateResourceTest : public ::testing::Test {
 protected:
  Names holders() { return zutest::holderNames(*s); }

  boost::shared_ptr<ZU::ZUResourceState> s = boost::make_shared<ZU::ZUResourceState>("S", nullptr);
};

TEST_F(StateResourceTest, GrantsOnlyWhileActivatedAndReleaseRemovesEveryHolderOfThatName) {
  // A no-wait list against activation: the explain tests.
  EXPECT_FALSE(s->isResourceFree());
  EXPECT_EQ(s->httpGet(2), "---------S Waiter: null<br />");

  auto a = makeOwner("a", "A"), b = makeOwner("b", "B"), c = makeOwner("c", "C");
  auto otherA = makeOwner("a", "A2");  // another object with the same name
  s->setState(true);
  for (const auto& owner : {a, b, otherA}) EXPECT_TRUE(s->waitFor(owner, "", 0, {}).empty());
  EXPECT_EQ(holders(), (Names{"a", "b", "a"}));
  s->release(otherA);
  EXPECT_EQ(holders(), Names{"b"});
  EXPECT_TRUE(otherA->resourceFreed);
  EXPECT_EQ(s->currentOwner.load(), s->emptyOwner);  // holders never show in currentOwner

  s->release(c);  // not a holder: only its flag is set
  EXPECT_TRUE(c->resourceFreed);
  EXPECT_FALSE(b->resourceFreed);
  EXPECT_EQ(holders(), Names{"b"});
}

TEST_F(StateResourceTest, WaitsPollTheActivation) {
  zutest::Stopwatch watch;
  // Names are compared whole and case counts: neither entry stops the wait.
  auto error = errorOf([&] { s->waitFor(makeOwner("a", "A"), "", 0, {"s", "S "}); });
  EXPECT_ELAPSED_NEAR(watch.elapsedMs(), 200);
  EXPECT_TRUE(zutest::waitFailed(error, ZU::contract::waitTimedOut("S")));
  EXPECT_EQ(s->ownersGet().serializeToText(), R"(["S","S",[]])");

  zutest::WaitForRun run(s, makeOwner("m", "M"), -1);
  EXPECT_TRUE(zutest::waitUntil([&] { return s->stateOwner->copyWaiters().size() == 1; }));
  EXPECT_EQ(s->ownersGet().serializeToText(), R"(["S","S",["M"]])");
  watch.restart();
  s->setState(true);
  EXPECT_TRUE(zutest::waitReturned(run.wait()));
  EXPECT_LE(watch.elapsedMs(), 200 + zutest::lateToleranceMs()) << "granted within one poll";
  EXPECT_EQ(s->httpGet(0), "---S (Activated)  -> M eStrong null 0 Waiter: []<br />");  // M holds
}

TEST_F(StateResourceTest, DeactivationTellsHoldersUntilAStrongOneHoldsOnAndKeepsThemAll) {
  auto broker = boost::make_shared<ZU::ZUBroker>();
  zutest::RecordingModule moduleA(broker, "MA");
  zutest::RecordingModule moduleB(broker, "MB");
  boost::shared_ptr<ZU::ZUOwner> w = boost::make_shared<ZU::ZUOwnerWeak>("w", "W");
  auto a = makeOwner("a", "MA"), b = makeOwner("b", "MB");
  for (const auto& owner : {a, b}) owner->setParentBroker(broker);
  s->setState(true);
  for (const auto& owner : {w, a, b}) s->waitFor(owner, "", 0, {});

  zutest::Stopwatch watch;
  s->setState(false);  // the weak holder declines at once; a's timeout error is dropped
  EXPECT_ELAPSED_NEAR(watch.elapsedMs(), 200);
  EXPECT_FALSE(s->isResourceFree());
  EXPECT_EQ(holders(), (Names{"w", "a", "b"}));
  // a waited one poll (waiters []); b was never told (null).
  EXPECT_EQ(s->httpGet(0),
            "---S -> W eWeak null 0 -> MA eStrong [] 0 -> MB eStrong null 0 Waiter: null<br />");

  // Requests that wait meanwhile, with no limit or a short one, wait for the next activation.
  zutest::WaitForRun noLimit(s, makeOwner("x", "X"), INT_MIN), limited(s, makeOwner("y", "Y"), 30);
  EXPECT_TRUE(
      zutest::waitFailed(errorOf([&] { s->releaseState(); }), ZU::contract::waitTimedOut("S")));
  moduleA.waitIdle();
  moduleB.waitIdle();
  EXPECT_EQ(moduleA.calls(), (Names{"S", "S"}));
  EXPECT_TRUE(moduleB.calls().empty());
  s->setState(false);
  EXPECT_TRUE(noLimit.running() && limited.running());
  s->setState(true);
  EXPECT_TRUE(zutest::waitReturned(noLimit.wait()));
  EXPECT_TRUE(zutest::waitReturned(limited.wait()));
  EXPECT_EQ(s->stateOwner->copyWaiters().size(), 0u);
}

}  // namespace
