#include "run/expectations.h"

#include <map>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuresourcestate.h>

using namespace zusim;

namespace {

class FakeWorld : public World {
 public:
  std::map<std::string, std::string> holder;
  std::map<std::string, std::vector<Outcome>> outcomes;

  std::string holderOf(const std::string& r) override { return holder[r]; }
  // The holders of a real state resource, as the library keeps them.
  std::vector<std::string> holdersOf(const std::string&) override {
    std::vector<std::string> names;
    ZU::ZUCriticalSection lock(standing->holdersMutex);
    for (const auto& holder : standing->holders) names.push_back(holder->name);
    return names;
  }
  bool isActivated(const std::string&) override { return true; }
  std::vector<Outcome> outcomesOf(const std::string& o) override { return outcomes[o]; }
  std::vector<std::string> notifiedOf(const std::string&) override { return {"Head"}; }
  std::vector<Finding> deadlocks() override { return deadlockList; }
  std::vector<Finding> staleWaits() override { return {}; }
  std::vector<Span> waits() override { return waitList; }
  std::vector<Span> holdings() override { return holdingList; }
  long nowMs() override { return 1000; }
  std::vector<Finding> deadlockList;
  std::vector<Span> waitList;
  std::vector<Span> holdingList;
  boost::shared_ptr<ZU::ZUResourceState> standing =
      boost::make_shared<ZU::ZUResourceState>("Standing", nullptr);
};

ExpectEntry expect(ExpectKind kind, const std::string& resource) {
  ExpectEntry x;
  x.kind = kind;
  x.owner = "a";
  x.resource = resource;
  return x;
}

ExpectEntry outcome(const std::string& resource, OutcomeKind kind) {
  ExpectEntry x = expect(ExpectKind::Outcome, resource);
  x.outcome = kind;
  return x;
}

class Expectations : public ::testing::Test {
 protected:
  Expectations() {
    world.outcomes["a"] = {
        {"Head", OutcomeKind::TimedOut, {}, ZU::contract::waitTimedOut("Head"), 100},
        {"Arms", OutcomeKind::NotObtained, {"LeftArm"}, "", 200},
        {"Head", OutcomeKind::Granted, {}, "", 300},
        {"Legs", OutcomeKind::Stopped, {}, ZU::contract::kStopWhileWaiting, 400}};
  }
  FakeWorld world;
};

}  // namespace

TEST_F(Expectations, OutcomeIsTheLatestRequestAndComparesErrorAndNamesOnlyWhenGiven) {
  EXPECT_TRUE(check(outcome("", OutcomeKind::Stopped), world).held);
  EXPECT_EQ(check(outcome("Head", OutcomeKind::TimedOut), world).text,
            "a's request of Head: timed out at the end, found granted");
  EXPECT_EQ(check(outcome("Body", OutcomeKind::Granted), world).text,
            "a's request of Body: granted at the end, found no request ended");
  ExpectEntry x = outcome("Arms", OutcomeKind::NotObtained);
  EXPECT_TRUE(check(x, world).held);
  x.checkNames = true;
  x.names = {"RightArm"};
  EXPECT_EQ(
      check(x, world).text,
      "a's request of Arms: not obtained [RightArm] at the end, found not obtained [LeftArm]");
  x = outcome("Legs", OutcomeKind::Stopped);
  x.error = ZU::contract::waitTimedOut("Legs");
  EXPECT_FALSE(check(x, world).held);
}

// Holders are compared in the order the resource granted them, not as a set.
TEST_F(Expectations, HoldersAreInGrantOrder) {
  world.standing->setState(true);
  for (const char* name : {"b", "a"})
    world.standing->waitFor(ZU::ZUResource::createOwner(0, name, name, nullptr), "", 0, {});
  ExpectEntry x = expect(ExpectKind::Holders, "Standing");
  x.atMs = 500;
  x.names = {"b", "a"};
  EXPECT_TRUE(check(x, world).held);
  x.names = {"a", "b"};
  EXPECT_EQ(check(x, world).text, "Standing held by [a, b] at 500 ms, found [b, a]");
}

// Owners match as a set, a resource on any edge, and only what was reported by its time.
TEST_F(Expectations, DeadlockMatchesOwnersResourceAndTime) {
  world.deadlockList = {{400, {"hug", "wave"}, {"LeftArm", "RightArm"}, "deadlock: hug -> wave"}};
  ExpectEntry x = expect(ExpectKind::Deadlock, "RightArm");
  x.reported = true;
  x.names = {"wave", "hug", "wave"};
  EXPECT_TRUE(check(x, world).held);
  x.atMs = 300;
  EXPECT_EQ(check(x, world).text,
            "a deadlock of [hug, wave] on RightArm reported by 300 ms, found none");
  x.atMs = -1;
  x.resource = "Standing";
  EXPECT_FALSE(check(x, world).held);
  x.resource.clear();
  x.names.clear();
  x.reported = false;
  EXPECT_EQ(check(x, world).text,
            "a deadlock not reported during the run, found \"deadlock: hug -> wave\" at 400 ms");
}

// A wait that goes on behind a new holder is one wait; one still running counts up to now.
TEST_F(Expectations, HistoryOfWaitsAndGrants) {
  world.waitList = {{"Head", "a", 100, 300, "b"},
                    {"LeftArm", "b", 200, 500, "a"},
                    {"Head", "a", 300, 600, "c"},
                    {"RightArm", "c", 700, -1, "a"}};
  world.holdingList = {{"Head", "b", 0, 300, ""}, {"RightArm", "a", 350, -1, ""}};
  ExpectEntry x = expect(ExpectKind::MaxWait, "Head");
  x.leaves = {"Head"};
  x.count = 499;
  EXPECT_EQ(check(x, world).text,
            "no wait on Head longer than 499 ms at the end, found a's of 500 ms on Head");
  x.leaves = {"LeftArm", "RightArm"};
  x.count = 299;
  EXPECT_FALSE(check(x, world).held);
  x.kind = ExpectKind::WaitedBehind;
  x.holder = "c";
  x.leaves.clear();
  EXPECT_TRUE(check(x, world).held);
  x.leaves = {"LeftArm"};
  EXPECT_FALSE(check(x, world).held);
  x.kind = ExpectKind::GrantedAt;
  x.resource = "Arms";
  x.leaves = {"LeftArm", "RightArm"};
  x.fromMs = 360;
  x.toMs = 900;
  EXPECT_EQ(check(x, world).text,
            "a granted Arms within [360, 900] ms at the end, found grants at [350] ms");
  x.fromMs = 350;
  EXPECT_TRUE(check(x, world).held);
}
