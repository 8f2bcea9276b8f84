#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuhost/zubroker.h>
#include <zuresource/zuresourcestate.h>

#include "support/guardedthread.h"
#include "support/recordingmodule.h"
#include "support/resourcehelpers.h"
#include "support/stopwatch.h"

namespace {

using Names = std::vector<std::string>;
using zutest::errorOf;
using zutest::makeOwner;

class StateResourceTest : public ::testing::Test {
 protected:
  Names holders() { return zutest::holderNames(*s); }
  boost::shared_ptr<ZU::ZUOwner> current() { return s->currentOwner.load(); }

  boost::shared_ptr<ZU::ZUResourceState> s = boost::make_shared<ZU::ZUResourceState>("S", nullptr);
};

TEST_F(StateResourceTest, NewResourceIsOffAndRefusesListedRequestsAtOnce) {
  auto a = makeOwner("a", "A");
  EXPECT_FALSE(s->isResourceFree());
  EXPECT_EQ(s->waitFor(a, "", 0, {"X", "S"}), Names{"S"});
  EXPECT_TRUE(holders().empty());
  EXPECT_EQ(current(), s->emptyOwner);
  EXPECT_EQ(s->ownersGet().serializeToText(), R"(["S"])");
}

TEST_F(StateResourceTest, GrantsWhileActivatedAndReleaseRemovesEveryHolderOfThatName) {
  auto a = makeOwner("a", "A");
  auto otherA = makeOwner("a", "A2");  // another object with the same name
  auto b = makeOwner("b", "B");
  s->setState(true);
  EXPECT_TRUE(s->isResourceFree());
  EXPECT_TRUE(s->waitFor(a, "", 0, {"S"}).empty());  // listed, but not busy
  EXPECT_TRUE(s->waitFor(b, "", 0, {}).empty());
  EXPECT_TRUE(s->waitFor(a, "", 0, {}).empty());
  EXPECT_TRUE(s->waitFor(otherA, "", 0, {}).empty());
  EXPECT_EQ(holders(), (Names{"a", "b", "a", "a"}));

  s->release(otherA);
  EXPECT_EQ(holders(), Names{"b"});
  EXPECT_TRUE(otherA->resourceFreed);
  EXPECT_EQ(current(), s->emptyOwner);  // holders never show in currentOwner
}

TEST_F(StateResourceTest, ReleaseOfANonHolderOnlySetsItsFlag) {
  auto a = makeOwner("a", "A");
  auto c = makeOwner("c", "C");
  s->setState(true);
  s->waitFor(a, "", 0, {});

  s->release(c);
  s->release(nullptr);
  EXPECT_TRUE(c->resourceFreed);
  EXPECT_FALSE(a->resourceFreed);
  EXPECT_EQ(holders(), Names{"a"});
  EXPECT_TRUE(s->isResourceFree());
  EXPECT_EQ(current(), s->emptyOwner);
}

TEST_F(StateResourceTest, WaitWithTimeoutZeroFailsAfterOnePollAndRegistersNobody) {
  auto a = makeOwner("a", "A");
  zutest::Stopwatch watch;
  // Names are compared whole and case counts: neither entry stops the wait.
  auto error = errorOf([&] { s->waitFor(a, "", 0, {"s", "S "}); });
  EXPECT_ELAPSED_NEAR(watch.elapsedMs(), 200);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->getModule(), "ResourceManager");
  EXPECT_EQ(error->getDescription(), "resource wait has timeouted on S");
  EXPECT_TRUE(holders().empty());
  EXPECT_EQ(current(), s->stateOwner);
  EXPECT_EQ(s->ownersGet().serializeToText(), R"(["S","S",[]])");
}

TEST_F(StateResourceTest, EndlessWaitIsGrantedWithinOnePollOfActivation) {
  auto m = makeOwner("m", "M");
  Names result{"not returned"};
  zutest::GuardedThread waiter([&] {
    try {
      result = s->waitFor(m, "", -1, {});
    } catch (const ZU::ZUError&) {
    }
  });
  EXPECT_TRUE(zutest::waitUntil([&] { return s->stateOwner->copyWaiters().size() == 1; }));
  EXPECT_EQ(s->httpGet(0), R"(---S Waiter: ["M"]<br />)");
  EXPECT_EQ(s->ownersGet().serializeToText(), R"(["S","S",["M"]])");

  zutest::Stopwatch watch;
  s->setState(true);
  const bool inTime = waiter.joinFor(200 + zutest::lateToleranceMs());
  const long elapsed = watch.elapsedMs();
  if (!inTime) {  // end a wait that activation missed
    m->freeResource();
    waiter.joinFor(5000);
  }
  EXPECT_TRUE(inTime) << "still waiting " << elapsed << " ms after activation";
  EXPECT_TRUE(result.empty());
  EXPECT_EQ(holders(), Names{"m"});
  EXPECT_EQ(s->httpGet(0), "---S (Activated)  -> M eStrong null 0 Waiter: []<br />");
}

TEST_F(StateResourceTest, DeactivationTellsWeakHoldersAndKeepsThem) {
  auto w1 = boost::make_shared<ZU::ZUOwnerWeak>("w1", "W1");
  auto w2 = boost::make_shared<ZU::ZUOwnerWeak>("w2", "W2");
  s->setState(true);
  s->waitFor(w1, "", 0, {});
  s->waitFor(w2, "", 0, {});

  s->setState(false);
  EXPECT_FALSE(s->isResourceFree());
  EXPECT_EQ(holders(), (Names{"w1", "w2"}));
  EXPECT_FALSE(errorOf([&] { s->releaseState(); }));
  EXPECT_EQ(s->httpGet(-1), "S -> W1 eWeak null 0 -> W2 eWeak null 0 Waiter: null<br />");
}

TEST_F(StateResourceTest, DeactivationStopsAtTheFirstStrongHolderThatHoldsOn) {
  auto broker = boost::make_shared<ZU::ZUBroker>();
  zutest::RecordingModule moduleA(broker, "MA");
  zutest::RecordingModule moduleB(broker, "MB");
  auto a = makeOwner("a", "MA");
  auto b = makeOwner("b", "MB");
  a->setParentBroker(broker);
  b->setParentBroker(broker);
  s->setState(true);
  s->waitFor(a, "", 0, {});
  s->waitFor(b, "", 0, {});
  EXPECT_EQ(s->httpGet(0),
            "---S (Activated)  -> MA eStrong null 0 -> MB eStrong null 0 Waiter: null<br />");

  zutest::Stopwatch watch;
  s->setState(false);  // the first holder's timeout error is dropped
  EXPECT_ELAPSED_NEAR(watch.elapsedMs(), 200);
  EXPECT_FALSE(s->isResourceFree());
  EXPECT_EQ(holders(), (Names{"a", "b"}));
  // The first holder waited one poll (its waiters went [] again); the second
  // was never told (its waiters are still untouched).
  EXPECT_EQ(s->httpGet(0), "---S -> MA eStrong [] 0 -> MB eStrong null 0 Waiter: null<br />");

  auto error = errorOf([&] { s->releaseState(); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->getDescription(), "resource wait has timeouted on S");
  moduleA.waitIdle();
  moduleB.waitIdle();
  EXPECT_EQ(moduleA.calls(), (Names{"S", "S"}));
  EXPECT_TRUE(moduleB.calls().empty());
}

TEST_F(StateResourceTest, ReportsFollowActivation) {
  EXPECT_EQ(s->httpGet(-1), "S Waiter: null<br />");
  EXPECT_EQ(s->httpGet(0), "---S Waiter: null<br />");
  EXPECT_EQ(s->httpGet(2), "---------S Waiter: null<br />");

  s->setState(true);
  EXPECT_EQ(s->httpGet(0), "---S (Activated)  Waiter: null<br />");
  s->releaseState();  // no holders: only deactivates
  EXPECT_FALSE(s->isResourceFree());
  EXPECT_EQ(s->httpGet(0), "---S Waiter: null<br />");
  EXPECT_EQ(current(), s->emptyOwner);

  // Unlike a plain resource, a state resource reports a "ZU" name too.
  ZU::ZUResourceState zuNamed("ZUS", nullptr);
  EXPECT_EQ(zuNamed.ownersGet().serializeToText(), R"(["ZUS"])");
}

TEST_F(StateResourceTest, EmptyOwnerHandleIsRefusedAndChangesNothing) {
  EXPECT_TRUE(errorOf([&] { s->waitFor(nullptr, "", 0, {}); }));
  EXPECT_EQ(current(), s->emptyOwner);
  s->setState(true);
  EXPECT_TRUE(errorOf([&] { s->waitFor(nullptr, "", 0, {}); }));
  EXPECT_TRUE(holders().empty());
  EXPECT_FALSE(s->stateOwner->copyWaiters().isValid());
}

}  // namespace
