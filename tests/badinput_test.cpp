// Bad input, one test per row of the bad-input table in docs/reliability.md;
// afterwards the objects serve as before.

#include <algorithm>
#include <atomic>
#include <climits>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <gtest/gtest.h>

#include <zuhost/zubroker.h>
#include <zuhost/zuos.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuresourcelist.h>
#include <zuresource/zuresourcestate.h>

#include "support/asyncrun.h"
#include "support/recordingmodule.h"
#include "support/resourcehelpers.h"
#include "support/threads.h"

namespace zutest {

/// Whether `resource` still serves a new owner after bad input: a fresh owner
/// ("probe", module "Probe") acquires it with timeout 0, holds it (for a state
/// resource, which must be activated: stands among its holders), releases it,
/// and then holds nothing of it (a plain resource or a group is free again).
inline ::testing::AssertionResult stillWorks(const boost::shared_ptr<ZU::ZUResource>& resource) {
  auto* state = dynamic_cast<ZU::ZUResourceState*>(resource.get());
  auto held = [&] {
    if (!state) return resource->isResourceOwned("Probe");
    const std::vector<std::string> names = holderNames(*state);
    return std::find(names.begin(), names.end(), "probe") != names.end();
  };
  auto probe = makeOwner("probe", "Probe");
  std::vector<std::string> missed;
  if (auto error = errorOf([&] { missed = resource->waitFor(probe, "", 0, {}); }))
    return ::testing::AssertionFailure() << "a new owner cannot acquire it: " << error->toString();
  if (!missed.empty()) return ::testing::AssertionFailure() << "not obtained: " << missed[0];
  if (!held()) return ::testing::AssertionFailure() << "not held: " << resource->httpGet(0);
  resource->release(probe);
  if (held() || (!state && !resource->isResourceFree()))
    return ::testing::AssertionFailure() << "not given back: " << resource->httpGet(0);
  return ::testing::AssertionSuccess();
}

}  // namespace zutest

namespace {

using Names = std::vector<std::string>;
using ResourcePtr = boost::shared_ptr<ZU::ZUResource>;
using ko::os::msleep;
using zutest::errorOf;
using zutest::makeGroup;
using zutest::makeOwner;
using zutest::makePlain;
using zutest::memberNames;
using zutest::stillWorks;
using zutest::WaitForRun;
using zutest::waitReturned;

// "Module.method: description" of the ZUError that `action` throws, or "".
std::string errorText(const std::function<void()>& action) {
  auto e = errorOf(action);
  return e ? e->getModule() + "." + e->getMethod() + ": " + e->getDescription() : "";
}
::testing::AssertionResult timesOut(const std::function<void()>& action, const std::string& name) {
  return zutest::waitFailed(errorOf(action), ZU::contract::waitTimedOut(name));
}

// A plain resource, an activated state resource and a group of two plain ones.
class BadInputTest : public ::testing::Test {
 protected:
  BadInputTest() { s->setState(true); }
  void expectAllStillWork() {
    for (const ResourcePtr& resource : {r, ResourcePtr(s), ResourcePtr(g)})
      EXPECT_TRUE(stillWorks(resource)) << resource->name;
  }

  ResourcePtr r = makePlain("R"), r1 = makePlain("R1"), r2 = makePlain("R2");
  boost::shared_ptr<ZU::ZUResourceState> s = boost::make_shared<ZU::ZUResourceState>("S", nullptr);
  boost::shared_ptr<ZU::ZUResourceList> g = makeGroup("G", {r1, r2});
  boost::shared_ptr<ZU::ZUOwner> a = makeOwner("a", "A");
};

TEST_F(BadInputTest, EmptyOwnerHandlesAreRefusedOrIgnored) {
  const std::pair<ResourcePtr, std::string> kinds[] = {
      {r, "ZUResource"}, {s, "ZUResourceState"}, {g, "ZUResourceList"}};
  for (const auto& row : kinds) {
    const ResourcePtr& resource = row.first;  // a plain name: lambdas capture it
    const std::string& kind = row.second;
    ASSERT_TRUE(resource->waitFor(a, "", 0, {}).empty());
    EXPECT_EQ(errorText([&] { resource->waitFor(nullptr, "", 0, {}); }),
              kind + ".waitFor: empty owner handle");
    EXPECT_EQ(errorText([&] { resource->switchOwner(nullptr, "", 0); }),  // s inherits it
              (resource == s ? "ZUResource" : kind) + ".switchOwner: empty owner handle");
    resource->release(nullptr);
    EXPECT_TRUE(resource == s ? zutest::holderNames(*s) == Names{"a"}
                              : resource->isResourceOwned("A"))
        << kind;
    resource->release(a);
  }
  expectAllStillWork();
}

TEST_F(BadInputTest, NulBytesKeepNamesApart) {
  auto arm = boost::make_shared<ZU::ZUResource>(std::string("Arm\0L", 5), nullptr);
  auto ab = makeOwner(std::string("a\0b", 3), "AB"), ac = makeOwner(std::string("a\0c", 3), "AC");
  ASSERT_TRUE(arm->waitFor(ab, "", 0, {}).empty());
  // Neither the holder nor its descendant, and "Arm" is not its name: it waits.
  EXPECT_TRUE(timesOut([&] { arm->waitFor(ac, "", 0, {"Arm"}); }, arm->name));
  EXPECT_TRUE(arm->isResourceOwned("AB"));
  arm->release(ab);
  EXPECT_TRUE(stillWorks(arm));
}

// Odd names (empty ones too) as resource, module and owner names at once. The
// owner's name gets a prefix: every name descends from the empty one.
TEST(BadInputOddNames, PassByteForByteThroughAcquisitionNotificationAndReports) {
  std::string megabyte;
  while (megabyte.size() < (1u << 20)) megabyte += "Tête du robot/bras gauche/手 ";
  for (const std::string& name :
       {std::string(), std::string("Le\0g/\0", 6), std::string("Tête/左腕/ρομπότ"), megabyte}) {
    SCOPED_TRACE(name.size());
    auto broker = boost::make_shared<ZU::ZUBroker>();
    zutest::RecordingModule module(broker, name);
    auto resource = boost::make_shared<ZU::ZUResource>(name, nullptr);
    auto holder = ZU::ZUResource::createOwner(0, "h" + name, name, nullptr);
    holder->setParentBroker(broker);
    ASSERT_TRUE(resource->waitFor(holder, "", 0, {}).empty());
    EXPECT_TRUE(resource->isResourceOwned(name));
    EXPECT_TRUE(timesOut([&] { resource->waitFor(makeOwner("o", "O"), "", 0, {}); }, name));
    EXPECT_EQ(resource->waitFor(makeOwner("p", "P"), "", 0, {name}), Names{name});
    module.waitIdle();
    EXPECT_EQ(module.calls(), Names{name});
    EXPECT_EQ(resource->httpGet(0), "---" + name + " -> " + name + " eStrong [] 0<br />");
    const std::string quoted = ZU::ZUValue(name).serializeToText();
    EXPECT_EQ(resource->ownersGet().serializeToText(), "[" + quoted + "," + quoted + ",[]]");
    auto state = boost::make_shared<ZU::ZUResourceState>(name, nullptr);
    state->setState(true);
    ASSERT_TRUE(state->waitFor(holder, "", 0, {}).empty());
    EXPECT_EQ(state->httpGet(-1),
              name + " (Activated)  -> " + name + " eStrong [] 0 Waiter: null<br />");
    state->release(holder);
    resource->release(holder);
    auto group = makeGroup(name, {resource});
    EXPECT_TRUE(stillWorks(group));
    EXPECT_TRUE(group->isInGroup(name));
    group->deleteResource(name);
    EXPECT_TRUE(memberNames(*group).empty());
    for (const ResourcePtr& each : {resource, ResourcePtr(state)}) EXPECT_TRUE(stillWorks(each));
  }
}

TEST_F(BadInputTest, AddAndDeleteResourceRefuseBadMembersAndKeepTheLists) {
  auto innermost = makeGroup("K", {});
  auto inner = makeGroup("H", {r, innermost});
  g->addResource(inner);
  const std::string add = "ZUResourceList.addResource: ";
  EXPECT_EQ(errorText([&] { g->addResource(nullptr); }), add + "empty resource handle");
  EXPECT_EQ(errorText([&] { g->addResource(g); }), add + "a group cannot be a member of itself: G");
  EXPECT_EQ(errorText([&] { innermost->addResource(g); }),  // K is inside H, inside G
            add + "adding G to K would make a cycle: it contains K");
  EXPECT_EQ(errorText([&] { g->deleteResource("R"); }),  // nested deeper
            "ZUResourceList.deleteResource: Resource not found R");
  // A plain resource's refusals of members: Contract.ErrorsCallersCatch.
  EXPECT_EQ(g->httpGet(0),
            "---G<br />------R1<br />------R2<br />------H<br />---------R<br />"
            "---------K<br />");
  EXPECT_TRUE(stillWorks(g));
  inner->deleteResource("R");  // where it is a direct member
  EXPECT_FALSE(g->isInGroup("R"));
}

TEST_F(BadInputTest, HttpGetIndentsNothingBelowZeroAndRefusesDepthsOverTheCap) {
  EXPECT_EQ(g->httpGet(-5), "G<br />R1<br />R2<br />");
  EXPECT_EQ(s->httpGet(INT_MIN), "S (Activated)  Waiter: null<br />");
  EXPECT_EQ(g->httpGet(10000), std::string(30003, '-') + "G<br />" + std::string(30006, '-') +
                                   "R1<br />" + std::string(30006, '-') + "R2<br />");
  auto overCap = [](int depth) {  // a status line of megabytes
    return "ZUResource.httpGet: depth " + std::to_string(depth) + " is over the limit of 1000000";
  };
  EXPECT_EQ(errorText([&] { r->httpGet(1000001); }), overCap(1000001));
  EXPECT_EQ(errorText([&] { r->httpGet(INT_MAX); }), overCap(INT_MAX));
  EXPECT_EQ(errorText([&] { g->httpGet(1000000); }), overCap(1000001));  // members deeper
  expectAllStillWork();
}

TEST_F(BadInputTest, TimeoutsOfIntMaxAndIntMinWaitUntilTheHolderLetsGo) {
  auto b = makeOwner("b", "B");  // a holder each: waits on one holder share its release flag
  ASSERT_TRUE(r->waitFor(a, "", 0, {}).empty());
  ASSERT_TRUE(r1->waitFor(b, "", 0, {}).empty());
  s->setState(false);
  auto w1 = makeOwner("w1", "W1"), w2 = makeOwner("w2", "W2"), w3 = makeOwner("w3", "W3");
  WaitForRun plainMax(r, w1, INT_MAX), groupMin(g, w2, INT_MIN), stateMax(s, w3, INT_MAX);
  msleep(700);  // several polls: an overflowed deadline would have failed at the first
  for (WaitForRun* run : {&plainMax, &groupMin, &stateMax}) EXPECT_TRUE(run->running());
  r->release(a);
  r1->release(b);
  s->setState(true);
  for (WaitForRun* run : {&plainMax, &groupMin, &stateMax}) EXPECT_TRUE(waitReturned(run->wait()));
  EXPECT_TRUE(r->isResourceOwned("W1") && g->isResourceOwned("W2"));
  r->release(w1);
  g->release(w2);
  s->release(w3);
  expectAllStillWork();
}

// An owner object of the same name releases a holder the manager dropped.
TEST_F(BadInputTest, OwnersDroppedByTheManagerWhileTheyWaitOrAreWaitedOnLiveOnUntilReleased) {
  ASSERT_TRUE(r->waitFor(a, "", 0, {}).empty());
  auto granted = makeOwner("w", "W"), refused = makeOwner("x", "X");
  boost::weak_ptr<ZU::ZUOwner> holderWatch = a, grantedWatch = granted, refusedWatch = refused;
  WaitForRun noLimit(r, granted, INT_MIN), limited(r, refused, 0);
  a.reset();
  granted.reset();
  refused.reset();
  EXPECT_TRUE(zutest::waitFailed(limited.wait(), ZU::contract::waitTimedOut("R")));
  EXPECT_TRUE(refusedWatch.expired());
  msleep(250);
  EXPECT_TRUE(noLimit.running());
  ASSERT_FALSE(holderWatch.expired());

  r->release(makeOwner("a", "A2"));
  EXPECT_TRUE(waitReturned(noLimit.wait()));
  EXPECT_TRUE(r->isResourceOwned("W"));
  EXPECT_TRUE(holderWatch.expired());
  ASSERT_FALSE(grantedWatch.expired());  // the resource keeps its holder alive
  r->release(makeOwner("w", "W"));
  EXPECT_TRUE(grantedWatch.expired());
  EXPECT_TRUE(stillWorks(r));
}

TEST(BadInputLifetime, ResourceDroppedByTheManagerWhileAnotherThreadReportsIt) {
  auto owner = makeOwner("a", "A");
  auto plain = boost::make_shared<ZU::ZUResource>("R", nullptr);
  auto state = boost::make_shared<ZU::ZUResourceState>("S", nullptr);
  auto group = makeGroup("G", {plain, state});
  ASSERT_TRUE(plain->waitFor(owner, "", 0, {}).empty());
  boost::weak_ptr<ZU::ZUResource> plainWatch = plain, stateWatch = state, groupWatch = group;
  boost::weak_ptr<ZU::ZUOwner> placeholderWatch = plain->emptyOwner;
  std::atomic<int> reports{0};
  std::atomic<bool> stop{false};
  // The reporter holds its own handles, as every caller must.
  zutest::GuardedThread reporter([group, plain, &reports, &stop] {
    while (!stop) {
      const std::string text = group->httpGet(0) + plain->httpGet(1);
      if (text.find("---R -> A eStrong") == std::string::npos) ADD_FAILURE() << text;
      group->ownersGet();
      ++reports;
    }
  });
  ASSERT_TRUE(zutest::waitUntil([&] { return reports > 10; }));
  group->deleteResource("S");  // a member goes while the group is reported
  group.reset();               // the manager's handles: the reporter's are the last
  plain.reset();
  state.reset();
  EXPECT_TRUE(stateWatch.expired());
  const int seen = reports;
  ASSERT_TRUE(zutest::waitUntil([&] { return reports > seen + 10; }));
  EXPECT_FALSE(groupWatch.expired());
  stop = true;
  ASSERT_TRUE(reporter.joinFor(5000));
  for (const auto& gone : {groupWatch, plainWatch}) EXPECT_TRUE(gone.expired());
  EXPECT_TRUE(placeholderWatch.expired());
  EXPECT_EQ(owner.use_count(), 1);  // the destroyed resource let go of its holder
}

}  // namespace
