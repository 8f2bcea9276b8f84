#include "expectations.h"

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace zusim;

namespace {

class FakeWorld : public World {
 public:
  std::map<std::string, std::string> holder;
  std::map<std::string, std::vector<Outcome>> outcomes;

  std::string holderOf(const std::string& r) override { return holder[r]; }
  std::vector<std::string> holdersOf(const std::string&) override { return {"a", "b"}; }
  bool isActivated(const std::string&) override { return true; }
  std::vector<Outcome> outcomesOf(const std::string& o) override { return outcomes[o]; }
  std::vector<std::string> notifiedOf(const std::string&) override { return {"Head"}; }
  std::vector<Finding> deadlocks() override { return deadlockList; }
  std::vector<Finding> staleWaits() override { return {}; }
  std::vector<Finding> deadlockList;
};

ExpectEntry outcome(const std::string& resource, OutcomeKind kind) {
  ExpectEntry x;
  x.entry = "expect[0]";
  x.kind = ExpectKind::Outcome;
  x.owner = "a";
  x.resource = resource;
  x.outcome = kind;
  return x;
}

class Expectations : public ::testing::Test {
 protected:
  Expectations() {
    world.outcomes["a"] = {
        {"Head", OutcomeKind::TimedOut, {}, "resource wait has timeouted on Head", 100},
        {"Arms", OutcomeKind::NotObtained, {"LeftArm"}, "", 200},
        {"Head", OutcomeKind::Granted, {}, "", 300},
        {"Legs", OutcomeKind::Stopped, {}, "box stop while waiting", 400}};
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
  x.error = "resource wait has timeouted on Legs";
  EXPECT_FALSE(check(x, world).held);
}

TEST_F(Expectations, HoldersAreInGrantOrder) {
  ExpectEntry x;
  x.entry = "expect[3]";
  x.atMs = 500;
  x.kind = ExpectKind::Holders;
  x.resource = "Standing";
  x.names = {"b", "a"};
  EXPECT_EQ(check(x, world).text, "Standing held by [b, a] at 500 ms, found [a, b]");
}

// Owners match as a set, a resource on any edge, and only what was reported by its time.
TEST_F(Expectations, DeadlockMatchesOwnersResourceAndTime) {
  world.deadlockList = {{400, {"hug", "wave"}, {"LeftArm", "RightArm"}, "deadlock: hug -> wave"}};
  ExpectEntry x;
  x.entry = "expect[1]";
  x.kind = ExpectKind::Deadlock;
  x.reported = true;
  x.names = {"wave", "hug", "wave"};
  x.resource = "RightArm";
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
