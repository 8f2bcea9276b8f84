// Bad input: each test is a row of the README's bad-input table. It shows what
// the library does with the input, then that the objects serve as before.

#include <algorithm>
#include <atomic>
#include <climits>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuhost/zubroker.h>
#include <zuresource/zuresourcelist.h>
#include <zuresource/zuresourcestate.h>

#include "support/guardedthread.h"
#include "support/recordingmodule.h"
#include "support/resourcehelpers.h"
#include "support/stillworks.h"
#include "support/waitforrun.h"

namespace {

using Names = std::vector<std::string>;
using ResourcePtr = boost::shared_ptr<ZU::ZUResource>;
using zutest::errorOf;
using zutest::makeGroup;
using zutest::makeOwner;
using zutest::stillWorks;
using zutest::waitReturned;
using zutest::WaitForRun;

void pause(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// A plain resource, an activated state resource and a group of two plain ones.
class BadInputTest : public ::testing::Test {
 protected:
  BadInputTest() { s->setState(true); }

  std::vector<ResourcePtr> everyKind() const { return {r, s, g}; }
  // Whether `owner` holds `resource` (for the state resource: is its only holder).
  bool holds(const ResourcePtr& resource, const boost::shared_ptr<ZU::ZUOwner>& owner) {
    if (resource == s) return zutest::holderNames(*s) == Names{owner->name};
    return resource->isResourceOwned(owner->moduleName);
  }

  ResourcePtr r = boost::make_shared<ZU::ZUResource>("R", nullptr);
  boost::shared_ptr<ZU::ZUResourceState> s = boost::make_shared<ZU::ZUResourceState>("S", nullptr);
  ResourcePtr r1 = boost::make_shared<ZU::ZUResource>("R1", nullptr);
  ResourcePtr r2 = boost::make_shared<ZU::ZUResource>("R2", nullptr);
  boost::shared_ptr<ZU::ZUResourceList> g = makeGroup("G", {r1, r2});
  boost::shared_ptr<ZU::ZUOwner> a = makeOwner("a", "A");
};

TEST_F(BadInputTest, EmptyOwnerHandleIsRefusedByWaitForAndSwitchOwnerAndIgnoredByRelease) {
  const char* classes[] = {"ZUResource", "ZUResourceState", "ZUResourceList"};
  int i = 0;
  for (const ResourcePtr& resource : everyKind()) {
    SCOPED_TRACE(resource->name);
    ASSERT_TRUE(resource->waitFor(a, "", 0, {}).empty());
    auto waitError = errorOf([&] { resource->waitFor(nullptr, "", 0, {}); });
    ASSERT_TRUE(waitError);
    EXPECT_EQ(waitError->getModule(), classes[i++]);
    EXPECT_EQ(waitError->getMethod(), "waitFor");
    EXPECT_EQ(waitError->getDescription(), "empty owner handle");
    auto switchError = errorOf([&] { resource->switchOwner(nullptr, "", 0); });
    ASSERT_TRUE(switchError);
    EXPECT_EQ(switchError->getMethod(), "switchOwner");
    EXPECT_EQ(switchError->getDescription(), "empty owner handle");
    resource->release(nullptr);
    EXPECT_TRUE(holds(resource, a));
    resource->release(a);
    EXPECT_TRUE(stillWorks(resource));
  }
}

TEST_F(BadInputTest, EmptyRequesterIsRefusedByAStrongOwnerAndDeclinedByAWeakOne) {
  ASSERT_TRUE(r->waitFor(a, "", 0, {}).empty());
  auto conflictError = errorOf([&] { a->conflict("R", nullptr, 0); });
  ASSERT_TRUE(conflictError);
  EXPECT_EQ(conflictError->getDescription(), "empty requester owner handle");
  auto strong = boost::dynamic_pointer_cast<ZU::ZUOwnerStrong>(a);
  auto waiterError = errorOf([&] { strong->addWaiter(nullptr, 0); });
  ASSERT_TRUE(waiterError);
  EXPECT_EQ(waiterError->getDescription(), "empty requester owner handle");
  EXPECT_FALSE(a->isParent(nullptr));
  a->setParentOwner(nullptr, "R");
  EXPECT_FALSE(a->getParentOwner("R"));
  EXPECT_FALSE(r->emptyOwner->conflict("R", nullptr, 0));
  EXPECT_EQ(a->copyWaiters().size(), 0u);
  EXPECT_FALSE(a->resourceFreed);
  r->release(a);
  EXPECT_TRUE(stillWorks(r));
}

TEST_F(BadInputTest, EmptyNamesWorkAndAnEmptyOwnerNameIsEveryonesAncestor) {
  auto unnamed = boost::make_shared<ZU::ZUResource>("", nullptr);
  auto silent = makeOwner("silent", "");  // no module name
  ASSERT_TRUE(unnamed->waitFor(silent, "", 0, {}).empty());
  EXPECT_EQ(unnamed->httpGet(0), "--- ->  eStrong null 0<br />");
  EXPECT_EQ(unnamed->ownersGet().serializeToText(), R"(["","",null])");
  EXPECT_EQ(unnamed->waitFor(a, "", 0, {""}), Names{""});
  unnamed->release(silent);

  auto group = makeGroup("", {unnamed, r});
  EXPECT_TRUE(group->isInGroup(""));
  group->deleteResource("");
  EXPECT_EQ(zutest::memberNames(*group), Names{"R"});

  // An owner named "" is the ancestor of every named owner: a request is handed
  // down at once and comes back on release.
  auto root = makeOwner("", "Root");
  ASSERT_TRUE(r->waitFor(root, "", 0, {}).empty());
  ASSERT_TRUE(r->waitFor(a, "", 0, {}).empty());
  EXPECT_EQ(a->getParentOwner("R"), root);
  r->release(a);
  EXPECT_TRUE(r->isResourceOwned("Root"));
  r->release(root);

  // Likewise a state resource named "" grants every named request, activated
  // or not: its own strong owner is named "" too.
  auto unnamedState = boost::make_shared<ZU::ZUResourceState>("", nullptr);
  EXPECT_TRUE(unnamedState->waitFor(a, "", 0, {}).empty());
  EXPECT_EQ(zutest::holderNames(*unnamedState), Names{"a"});
  unnamedState->release(a);

  EXPECT_TRUE(stillWorks(unnamed));
  EXPECT_TRUE(stillWorks(r));
  EXPECT_TRUE(stillWorks(group));
}

TEST_F(BadInputTest, NulBytesKeepNamesApart) {
  const std::string armName("Arm\0L", 5);
  auto arm = boost::make_shared<ZU::ZUResource>(armName, nullptr);
  auto ab = makeOwner(std::string("a\0b", 3), "AB");
  auto ac = makeOwner(std::string("a\0c", 3), "AC");
  ASSERT_TRUE(arm->waitFor(ab, "", 0, {}).empty());
  EXPECT_EQ(arm->waitFor(ac, "", 0, {"Arm", armName}), Names{armName});
  auto timedOut = errorOf([&] { arm->waitFor(ac, "", 0, {"Arm"}); });
  ASSERT_TRUE(timedOut);  // neither the holder nor its descendant: it waited
  EXPECT_EQ(timedOut->getDescription(), "resource wait has timeouted on " + armName);
  EXPECT_TRUE(arm->isResourceOwned("AB"));
  arm->release(ab);

  // "a" is a byte prefix of "a\0b": the ancestor hands it down.
  ASSERT_TRUE(arm->waitFor(a, "", 0, {}).empty());
  ASSERT_TRUE(arm->waitFor(ab, "", 0, {}).empty());
  EXPECT_EQ(ab->getParentOwner(armName), a);
  arm->release(ab);
  arm->release(a);
  EXPECT_TRUE(stillWorks(arm));
}

// Odd names as resource, owner and module names at once, through acquisition,
// a contested wait with its notification, the error text and the reports.
struct OddName {
  const char* label;
  std::string text;
};
void PrintTo(const OddName& name, std::ostream* out) { *out << name.label; }  // not 1 MB

std::string megabyteOfText() {
  std::string text;
  while (text.size() < (1u << 20)) text += "Tête du robot/bras gauche/手 ";
  return text;
}

class OddNameTest : public ::testing::TestWithParam<OddName> {};

TEST_P(OddNameTest, PassesByteForByteThroughAcquisitionNotificationAndReports) {
  const std::string& name = GetParam().text;
  auto broker = boost::make_shared<ZU::ZUBroker>();
  zutest::RecordingModule module(broker, name);
  auto resource = boost::make_shared<ZU::ZUResource>(name, nullptr);
  auto holder = ZU::ZUResource::createOwner(0, name, name, nullptr);
  holder->setParentBroker(broker);
  ASSERT_TRUE(resource->waitFor(holder, "", 0, {}).empty());
  EXPECT_TRUE(resource->isResourceOwned(name));

  auto timedOut = errorOf([&] { resource->waitFor(makeOwner("other", "Other"), "", 0, {}); });
  ASSERT_TRUE(timedOut);
  EXPECT_EQ(timedOut->getDescription(), "resource wait has timeouted on " + name);
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
  group->deleteResource(name);
  EXPECT_TRUE(zutest::memberNames(*group).empty());
  EXPECT_TRUE(stillWorks(resource));
  EXPECT_TRUE(stillWorks(state));
}

INSTANTIATE_TEST_SUITE_P(BadInput, OddNameTest,
                         ::testing::Values(OddName{"NulBytes", std::string("Le\0g/\0", 6)},
                                           OddName{"Utf8", "Tête/左腕/ρομπότ"},
                                           OddName{"OneMegabyte", megabyteOfText()}),
                         [](const ::testing::TestParamInfo<OddName>& info) {
                           return std::string(info.param.label);
                         });

TEST_F(BadInputTest, AddResourceRefusesAnEmptyHandleTheGroupItselfAndCycles) {
  auto inner = makeGroup("H", {r});
  auto innermost = makeGroup("K", {});
  g->addResource(inner);
  inner->addResource(innermost);

  auto empty = errorOf([&] { g->addResource(nullptr); });
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty->getDescription(), "empty resource handle");
  auto itself = errorOf([&] { g->addResource(g); });
  ASSERT_TRUE(itself);
  EXPECT_EQ(itself->getDescription(), "a group cannot be a member of itself: G");
  auto cycle = errorOf([&] { innermost->addResource(g); });  // K is inside H, inside G
  ASSERT_TRUE(cycle);
  EXPECT_EQ(cycle->getDescription(), "adding G to K would make a cycle: it contains K");
  auto plain = errorOf([&] { r->addResource(r1); });
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->getDescription(), "Add resource only in resource list");

  EXPECT_EQ(zutest::memberNames(*g), (Names{"R1", "R2", "H"}));
  EXPECT_EQ(zutest::memberNames(*inner), (Names{"R", "K"}));
  EXPECT_TRUE(zutest::memberNames(*innermost).empty());
  EXPECT_TRUE(stillWorks(g));
}

TEST_F(BadInputTest, DeleteResourceOfANameNestedDeeperIsNotFound) {
  auto inner = makeGroup("H", {r});
  g->addResource(inner);
  auto nested = errorOf([&] { g->deleteResource("R"); });
  ASSERT_TRUE(nested);
  EXPECT_EQ(nested->getModule(), "ZUResourceList");
  EXPECT_EQ(nested->getDescription(), "Resource not found R");
  auto plain = errorOf([&] { r->deleteResource("R"); });
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->getDescription(), "Delete resource only in resource list");
  EXPECT_EQ(zutest::memberNames(*g), (Names{"R1", "R2", "H"}));
  EXPECT_TRUE(g->isInGroup("R"));
  inner->deleteResource("R");  // where it is a direct member
  EXPECT_FALSE(g->isInGroup("R"));
  EXPECT_TRUE(stillWorks(g));
}

TEST_F(BadInputTest, HttpGetIndentsNothingBelowZeroAndRefusesDepthsOverTheCap) {
  EXPECT_EQ(g->httpGet(-5), "G<br />R1<br />R2<br />");
  EXPECT_EQ(s->httpGet(INT_MIN), "S (Activated)  Waiter: null<br />");
  const std::string deep = g->httpGet(10000);
  EXPECT_EQ(deep, std::string(30003, '-') + "G<br />" + std::string(30006, '-') + "R1<br />" +
                      std::string(30006, '-') + "R2<br />");
  // The cap: a depth over 1,000,000 would make a status line of megabytes.
  for (int depth : {1000001, INT_MAX}) {
    auto refused = errorOf([&] { r->httpGet(depth); });
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->getDescription(),
              "depth " + std::to_string(depth) + " is over the limit of 1000000");
  }
  auto groupRefused = errorOf([&] { g->httpGet(1000000); });  // its members would be deeper
  ASSERT_TRUE(groupRefused);
  for (const ResourcePtr& resource : everyKind()) EXPECT_TRUE(stillWorks(resource));
}

TEST(BadInputTimeouts, DeadlineOfIntMaxSecondsDoesNotOverflow) {
  using namespace boost::posix_time;
  const ptime now = microsec_clock::local_time();
  const ptime deadline = now + seconds(INT_MAX);
  EXPECT_FALSE(deadline.is_special());
  EXPECT_GT(deadline, now + hours(24 * 365 * 60));
  EXPECT_LT(now + seconds(INT_MIN), now);
}

TEST_F(BadInputTest, TimeoutsOfIntMaxAndIntMinWaitUntilTheHolderLetsGo) {
  auto b = makeOwner("b", "B");  // a holder each: waits on one holder share its release flag
  ASSERT_TRUE(r->waitFor(a, "", 0, {}).empty());
  ASSERT_TRUE(r1->waitFor(b, "", 0, {}).empty());
  s->setState(false);
  auto w1 = makeOwner("w1", "W1"), w2 = makeOwner("w2", "W2");
  auto w3 = makeOwner("w3", "W3"), w4 = makeOwner("w4", "W4");
  WaitForRun plainMax(r, w1, INT_MAX), groupMin(g, w2, INT_MIN);
  WaitForRun stateMax(s, w3, INT_MAX), stateMin(s, w4, INT_MIN);
  pause(700);  // several polls: an overflowed deadline would have failed at the first
  for (WaitForRun* run : {&plainMax, &groupMin, &stateMax, &stateMin}) EXPECT_TRUE(run->running());

  r->release(a);
  r1->release(b);
  s->setState(true);
  for (WaitForRun* run : {&plainMax, &groupMin, &stateMax, &stateMin})
    EXPECT_TRUE(waitReturned(run->wait()));
  EXPECT_TRUE(r->isResourceOwned("W1"));
  EXPECT_TRUE(g->isResourceOwned("W2"));
  r->release(w1);
  g->release(w2);
  s->release(w3);
  s->release(w4);
  for (const ResourcePtr& resource : everyKind()) EXPECT_TRUE(stillWorks(resource));
}

TEST_F(BadInputTest, DeactivationWhileRequestsWaitLeavesThemWaitingForTheNextActivation) {
  ASSERT_TRUE(s->waitFor(a, "", 0, {}).empty());  // a strong holder that never lets go
  s->setState(false);                              // it is told; its error is dropped
  auto w1 = makeOwner("w1", "W1"), w2 = makeOwner("w2", "W2");
  WaitForRun noLimit(s, w1, INT_MIN), limited(s, w2, 30);
  pause(250);
  auto told = errorOf([&] { s->releaseState(); });
  ASSERT_TRUE(told);  // the holder is told again and does not let go in time
  EXPECT_EQ(told->getDescription(), "resource wait has timeouted on S");
  s->setState(false);
  EXPECT_TRUE(noLimit.running());
  EXPECT_TRUE(limited.running());

  s->setState(true);
  EXPECT_TRUE(waitReturned(noLimit.wait()));
  EXPECT_TRUE(waitReturned(limited.wait()));
  Names holders = zutest::holderNames(*s);
  std::sort(holders.begin() + 1, holders.end());
  EXPECT_EQ(holders, (Names{"a", "w1", "w2"}));
  for (const auto& owner : {a, w1, w2}) s->release(owner);
  EXPECT_TRUE(zutest::holderNames(*s).empty());
  EXPECT_EQ(s->stateOwner->copyWaiters().size(), 0u);
  EXPECT_TRUE(stillWorks(s));
}

TEST_F(BadInputTest, OwnerDroppedByTheManagerWhileItWaitsLivesOnUntilItsWaitEnds) {
  ASSERT_TRUE(r->waitFor(a, "", 0, {}).empty());
  auto granted = makeOwner("w", "W"), refused = makeOwner("x", "X");
  boost::weak_ptr<ZU::ZUOwner> grantedWatch = granted, refusedWatch = refused;
  WaitForRun noLimit(r, granted, INT_MIN), limited(r, refused, 0);
  granted.reset();
  refused.reset();
  EXPECT_TRUE(zutest::waitFailedWith(limited.wait(), "resource wait has timeouted on R"));
  EXPECT_TRUE(refusedWatch.expired());

  r->release(a);
  EXPECT_TRUE(waitReturned(noLimit.wait()));
  EXPECT_TRUE(r->isResourceOwned("W"));  // the resource keeps its holder alive
  ASSERT_FALSE(grantedWatch.expired());
  r->release(makeOwner("w", "W"));  // owners are told apart by name
  EXPECT_TRUE(grantedWatch.expired());
  EXPECT_TRUE(stillWorks(r));
}

TEST_F(BadInputTest, HolderDroppedByTheManagerWhileOthersWaitOnItCanStillBeReleasedByName) {
  ASSERT_TRUE(r->waitFor(a, "", 0, {}).empty());
  boost::weak_ptr<ZU::ZUOwner> holderWatch = a;
  auto w = makeOwner("w", "W");
  WaitForRun waiting(r, w, INT_MIN);
  pause(250);
  a.reset();  // the resource and the running wait still hold it
  pause(250);
  EXPECT_TRUE(waiting.running());
  ASSERT_FALSE(holderWatch.expired());

  r->release(makeOwner("a", "A2"));
  EXPECT_TRUE(waitReturned(waiting.wait()));
  EXPECT_TRUE(r->isResourceOwned("W"));
  EXPECT_TRUE(holderWatch.expired());
  r->release(w);
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
  EXPECT_TRUE(groupWatch.expired());
  EXPECT_TRUE(plainWatch.expired());
  EXPECT_TRUE(placeholderWatch.expired());
  EXPECT_EQ(owner.use_count(), 1);  // the destroyed resource let go of its holder
  EXPECT_TRUE(boost::make_shared<ZU::ZUResource>("R", nullptr)->waitFor(owner, "", 0, {}).empty());
}

}  // namespace
