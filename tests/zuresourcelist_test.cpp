// Resource groups: membership, queries and reports, then acquisition, which
// walks the members.
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <gtest/gtest.h>

#include <zuhost/zuerror.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuexplain.h>
#include <zuresource/zuresource.h>
#include <zuresource/zuresourcelist.h>
#include <zuresource/zuresourcestate.h>
#include <zuresource/zustalewaitchecker.h>

#include "support/asyncrun.h"
#include "support/resourcehelpers.h"
#include "support/threads.h"

namespace {

/// Calls made on the members of a group, as "<resource>.<operation>", in
/// order. The tests that record run in one thread.
using CallLog = std::vector<std::string>;

/// Stands in front of a plain resource of the same name: records waitFor,
/// switchOwner, release and isResourceFree, then lets the inner resource
/// answer (so its calls to itself are not recorded). Its waitFor can run an
/// action first, or fail.
class RecordingResource : public ZU::ZUResource {
 public:
  RecordingResource(const std::string& name, boost::shared_ptr<CallLog> log)
      : ZUResource(name, nullptr),
        inner_(boost::make_shared<ZUResource>(name, nullptr)),
        log_(std::move(log)) {}

  /// waitFor runs `action` after recording the call, before the inner wait.
  void onWaitFor(std::function<void()> action) { action_ = std::move(action); }
  /// waitFor throws ZUError ("ResourceManager", "waitResource", `description`)
  /// after recording the call; lastError() is the address of the thrown object.
  void failWaitFor(const std::string& description) { failure_ = description; }
  const ZU::ZUError* lastError() const { return lastError_; }
  const boost::shared_ptr<ZU::ZUResource>& inner() const { return inner_; }

  std::vector<std::string> waitFor(boost::shared_ptr<ZU::ZUOwner> owner, const std::string& label,
                                   int timeout, const std::vector<std::string>& noWait) override {
    record("waitFor");
    if (action_) action_();
    if (failure_.empty()) return inner_->waitFor(owner, label, timeout, noWait);
    try {
      throw ZU::ZUError("ResourceManager", "waitResource", failure_, "tests", 0);
    } catch (const ZU::ZUError& error) {
      lastError_ = &error;  // the very object that travels on
      throw;
    }
  }
  void switchOwner(boost::shared_ptr<ZU::ZUOwner> owner, const std::string& label,
                   int timeout) override {
    record("switchOwner");
    inner_->switchOwner(owner, label, timeout);
  }
  void release(boost::shared_ptr<ZU::ZUOwner> owner) override {
    record("release");
    inner_->release(owner);
  }
  bool isResourceFree() override {
    record("isResourceFree");
    return inner_->isResourceFree();
  }
  bool isResourceOwned(const std::string& m) override { return inner_->isResourceOwned(m); }

 private:
  void record(const char* operation) { log_->push_back(name + "." + operation); }

  const boost::shared_ptr<ZU::ZUResource> inner_;
  const boost::shared_ptr<CallLog> log_;
  std::function<void()> action_;
  std::string failure_;  // empty: none
  const ZU::ZUError* lastError_ = nullptr;
};

using Names = std::vector<std::string>;
using zutest::errorOf;
using zutest::makeGroup;
using zutest::makeOwner;
using zutest::makePlain;
using zutest::memberNames;

TEST(GroupMembershipTest, QueriesAndReportsNestAndDeleteTakesTheFirstMatch) {
  // G holds A and H; H holds B.
  auto a = makePlain("A"), b = makePlain("B");
  auto h = makeGroup("H", {b}), g = makeGroup("G", {a, h});
  for (const char* name : {"G", "A", "H", "B"}) EXPECT_TRUE(g->isInGroup(name)) << name;
  EXPECT_FALSE(h->isInGroup("A"));
  for (const char* name : {"", "G ", "g", "Bx"}) EXPECT_FALSE(g->isInGroup(name)) << name;

  auto owner = makeOwner("o", "M");
  for (const auto& r : {a, b}) r->waitFor(owner, "", 0, {});
  EXPECT_EQ(g->httpGet(-1),
            "G<br />---A -> M eStrong null 0<br />---H<br />"
            "------B -> M eStrong null 0<br />");
  EXPECT_EQ(g->ownersGet().serializeToText(),
            R"([["G"],[["A","M",null],[["H"],[["B","M",null]]]]])");

  // Plain resources and groups named "ZU..." give an invalid value; states do not.
  auto mixed = makeGroup("G", {makePlain("ZUA"), makeGroup("ZUH", {b}), makePlain("A"),
                               boost::make_shared<ZU::ZUResourceState>("ZUS", nullptr)});
  EXPECT_EQ(mixed->ownersGet().serializeToText(), R"([["G"],[["A"],["ZUS"]]])");
  EXPECT_FALSE(makeGroup("ZUGroup", {a})->ownersGet().isValid());

  // Deleting removes the first match and keeps the order.
  auto d = makeGroup("D", {a, b, a, h});
  d->deleteResource("A");
  EXPECT_EQ(memberNames(*d), (Names{"B", "A", "H"}));
}

/// A group G of three recording members R1, R2, R3 sharing one log.
class GroupAcquireTest : public ::testing::Test {
 protected:
  boost::shared_ptr<CallLog> log = boost::make_shared<CallLog>();
  boost::shared_ptr<RecordingResource> r1 = boost::make_shared<RecordingResource>("R1", log);
  boost::shared_ptr<RecordingResource> r2 = boost::make_shared<RecordingResource>("R2", log);
  boost::shared_ptr<RecordingResource> r3 = boost::make_shared<RecordingResource>("R3", log);
  boost::shared_ptr<ZU::ZUResourceList> g = makeGroup("G", {r1, r2, r3});
  boost::shared_ptr<ZU::ZUOwner> owner = makeOwner("o", "M");
  boost::shared_ptr<ZU::ZUOwner> other = makeOwner("x", "X");
};

TEST_F(GroupAcquireTest, EveryWalkTakesTheMembersInListOrder) {
  EXPECT_TRUE(g->waitFor(owner, "", 0, {}).empty());
  EXPECT_TRUE(g->isResourceOwned("M"));
  g->switchOwner(other, "", 0);
  EXPECT_TRUE(g->isResourceOwned("X"));
  g->release(owner);  // asks every member, also those the owner doesn't hold
  EXPECT_EQ(*log,
            (Names{"R1.waitFor", "R2.waitFor", "R3.waitFor", "R1.switchOwner", "R2.switchOwner",
                   "R3.switchOwner", "R1.release", "R2.release", "R3.release"}));
  EXPECT_TRUE(g->isResourceOwned("X"));
}

TEST_F(GroupAcquireTest, FreeStopsAtTheFirstBusyAndNamesNotWaitedForJoinInMemberOrder) {
  for (const auto& busy : {r2, r3}) busy->inner()->waitFor(other, "", 0, {});
  EXPECT_FALSE(g->isResourceFree());
  EXPECT_EQ(g->waitFor(owner, "", 0, {"R3", "R2", "R1"}), (Names{"R2", "R3"}));
  EXPECT_EQ(*log, (Names{"R1.isResourceFree", "R2.isResourceFree", "R1.waitFor", "R2.waitFor",
                         "R3.waitFor"}));  // no release: what was obtained stays held
  EXPECT_TRUE(r1->isResourceOwned("M") && r2->isResourceOwned("X") && r3->isResourceOwned("X"));
  EXPECT_FALSE(g->isResourceOwned("M")) << "owned by one member is not owned";
}

TEST_F(GroupAcquireTest, FailingMemberReleasesEveryMemberAndRethrowsTheVeryError) {
  r2->failWaitFor("R2 gave up");
  try {
    g->waitFor(owner, "", 0, {});
    ADD_FAILURE() << "no error";
  } catch (const ZU::ZUError& error) {
    EXPECT_EQ(&error, r2->lastError()) << "a copy was thrown on";
    EXPECT_EQ(error.getDescription(), "R2 gave up");
  }
  EXPECT_EQ(*log, (Names{"R1.waitFor", "R2.waitFor", "R1.release", "R2.release", "R3.release"}));
  EXPECT_TRUE(g->isResourceFree());

  // Errors of other types pass on without a release.
  r2->onWaitFor([] { throw std::runtime_error("not a ZUError"); });
  EXPECT_THROW(g->waitFor(owner, "", 0, {}), std::runtime_error);
  EXPECT_TRUE(r1->isResourceOwned("M"));
}

TEST_F(GroupAcquireTest, EveryLevelReleasesOnTheWayOut) {
  r3->failWaitFor("R3 gave up");
  auto nested = makeGroup("N", {r1, makeGroup("H", {r2, r3})});
  EXPECT_TRUE(
      zutest::waitFailed(errorOf([&] { nested->waitFor(owner, "", 0, {}); }), "R3 gave up"));
  EXPECT_EQ(*log, (Names{"R1.waitFor", "R2.waitFor", "R3.waitFor",     // the walk
                         "R2.release", "R3.release",                   // H's release
                         "R1.release", "R2.release", "R3.release"}));  // N's
  EXPECT_TRUE(nested->isResourceFree());
}

TEST_F(GroupAcquireTest, AbortBeforeOrDuringAWalkGivesEveryMemberBack) {
  g->setAbortRequested(true);
  g->switchOwner(owner, "", 0);
  EXPECT_EQ(*log, (Names{"R1.release", "R2.release", "R3.release"}));
  g->setAbortRequested(false);

  r2->onWaitFor([this] { g->setAbortRequested(true); });
  r3->inner()->waitFor(other, "", 0, {});
  // R3 is busy and listed, yet the result is empty: an aborted walk says nothing.
  EXPECT_TRUE(g->waitFor(owner, "", 0, {"R3"}).empty());
  EXPECT_EQ(*log, (Names{"R1.release", "R2.release", "R3.release", "R1.waitFor", "R2.waitFor",
                         "R1.release", "R2.release", "R3.release"}));
  EXPECT_TRUE(r1->isResourceFree() && r2->isResourceFree());
  EXPECT_TRUE(r3->isResourceOwned("X"));
}

TEST(GroupMixedTest, StateMemberIsAcquiredByItsOwnRules) {
  auto a = makePlain("A");
  auto s = boost::make_shared<ZU::ZUResourceState>("S", nullptr);
  auto g = makeGroup("G", {a, s});
  auto owner = makeOwner("o", "M");
  EXPECT_EQ(g->waitFor(owner, "", 0, {"S"}), Names{"S"});  // S is off
  EXPECT_TRUE(a->isResourceOwned("M"));
  g->release(owner);  // this also stops the owner: the next wait is another's

  owner = makeOwner("p", "M");
  // It waits one poll for S.
  EXPECT_TRUE(zutest::waitFailed(errorOf([&] { g->waitFor(owner, "", 0, {}); }),
                                 ZU::contract::waitTimedOut("S")));
  EXPECT_TRUE(a->isResourceFree()) << "the failed walk gave A back";
  // With S activated the walk succeeds: the explain tests.
}

// Race: 1: waitFor reads G, blocks on R; 2: addResource waits to write G;
// 1: the wait times out and G gives R back. Taking G's read side again there
// deadlocked behind the waiting writer with a writer-first lock; the walk
// now gives back under the read side it still holds.
TEST(GroupLockTest, ReleaseAfterAFailedWaitIsNotHeldUpByAWaitingWriter) {
  auto r = makePlain("R");
  auto g = makeGroup("G", {r});
  auto holder = makeOwner("h", "H");
  r->waitFor(holder, "", 0, {});

  zutest::GuardedThread waiter([g] {
    try {
      g->waitFor(makeOwner("o", "M"), "", 1, {});
    } catch (const ZU::ZUError&) {
    }
  });
  ASSERT_TRUE(zutest::waitUntil([&] { return holder->copyWaiters().size() == 1; }));
  zutest::GuardedThread writer([g] { g->addResource(makePlain("Late")); });

  EXPECT_FALSE(writer.joinFor(100)) << "the writer did not wait for the reader";
  ASSERT_TRUE(waiter.joinFor(10000)) << "deadlock: the release did not get the read lock";
  ASSERT_TRUE(writer.joinFor(10000)) << "the writer never got the lock";
  EXPECT_EQ(memberNames(*g), (Names{"R", "Late"}));
  EXPECT_TRUE(r->isResourceOwned("H"));
}

}  // namespace

// A chain of groups far deeper than a small stack would take by recursion: the
// status text, explain (its text) and the stale-wait check walk it on a thread with a
// 256 KB stack.
TEST(GroupDepthTest, DeepChainIsReportedExplainedAndCheckedWithoutRecursion) {
  const int depth = 20000;
  // The status text holds a lock per level, and the thread sanitizer follows
  // at most 64 held at once.
#if defined(__SANITIZE_THREAD__)
  const int textDepth = 50;
#else
  const int textDepth = 3000;
#endif
  std::vector<boost::shared_ptr<ZU::ZUResourceList>> chain;
  for (int i = 0; i < depth; ++i) {
    chain.push_back(makeGroup("G" + std::to_string(i), {}));
    if (i > 0) chain[i - 1]->addResource(chain[i]);  // top down: each addition stays shallow
  }
  chain.back()->addResource(makePlain("Head"));
  boost::shared_ptr<ZU::ZUOwner> owner = makeOwner("a", "A");
  std::string text, explained;
  std::size_t stale = 1;
  zutest::runOnSmallStack(256 * 1024, [&] {
    text = chain[depth - textDepth]->httpGet(0);  // the text grows with the square of the depth
    explained = ZU::explain(chain.front(), owner).toString();
    stale = ZU::ZUStaleWaitChecker().check({chain.front()}).size();
  });
  EXPECT_EQ(text.rfind("---G" + std::to_string(depth - textDepth) + "<br />", 0), 0u);
  const std::string head = std::string(3 * (textDepth + 1), '-') + "Head<br />";
  EXPECT_EQ(text.substr(text.size() - head.size() - 6), "<br />" + head);
  EXPECT_EQ(explained.substr(0, 40), "G0: group, no wait {G1: group, no wait {");
  const std::string end = "Head: free; a would take it" + std::string(depth, '}');
  EXPECT_EQ(explained.substr(explained.size() - end.size()), end);
  EXPECT_EQ(stale, 0u);
  // Taken apart bottom up: a chain's last handle would otherwise be let go by recursion.
  for (int i = depth - 1; i > 0; --i) chain[i - 1]->deleteResource(chain[i]->name);
}
