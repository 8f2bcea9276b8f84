// Group membership: the member list, the queries and the reports.
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zuresource/zuresourcelist.h>
#include <zuresource/zuresourcestate.h>

#include "support/recordingresource.h"
#include "support/resourcehelpers.h"

namespace {

using Names = std::vector<std::string>;
using ResourcePtr = boost::shared_ptr<ZU::ZUResource>;
using ::testing::HasSubstr;
using zutest::errorOf;
using zutest::makeGroup;
using zutest::memberNames;

ResourcePtr plain(const std::string& name) {
  return boost::make_shared<ZU::ZUResource>(name, nullptr);
}

TEST(GroupMembershipTest, EmptyGroupAnswersFromNoMembers) {
  auto g = makeGroup("G", {});
  EXPECT_TRUE(g->getResourceList().empty());
  EXPECT_TRUE(g->isResourceFree());
  EXPECT_TRUE(g->isResourceOwned("AnyModule"));
  EXPECT_TRUE(g->isResourceOwned(""));
  EXPECT_TRUE(g->isInGroup("G"));
  EXPECT_FALSE(g->isInGroup("A"));
  EXPECT_FALSE(g->isInGroup(""));
  EXPECT_EQ(g->httpGet(-1), "G<br />");
  EXPECT_EQ(g->httpGet(1), "------G<br />");
  EXPECT_EQ(g->ownersGet().serializeToText(), R"([["G"]])");
  EXPECT_FALSE(makeGroup("ZUGroup", {plain("A")})->ownersGet().isValid());
}

TEST(GroupMembershipTest, DeleteRemovesTheFirstMatchAndKeepsTheOrder) {
  auto a = plain("A");
  auto g = makeGroup("G", {a, plain("B"), a, plain("C")});
  EXPECT_EQ(memberNames(*g), (Names{"A", "B", "A", "C"}));

  g->deleteResource("A");
  EXPECT_EQ(memberNames(*g), (Names{"B", "A", "C"}));
  g->deleteResource("A");
  EXPECT_EQ(memberNames(*g), (Names{"B", "C"}));

  auto error = errorOf([&] { g->deleteResource("A"); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->getModule(), "ZUResourceList");
  EXPECT_EQ(error->getMethod(), "deleteResource");
  EXPECT_EQ(error->getDescription(), "Resource not found A");
  EXPECT_EQ(error->getSourceFile(), "behavior/lib/zuresource/zuresource/zuresourcelist");
  EXPECT_EQ(error->getLine(), 156u);
  EXPECT_EQ(memberNames(*g), (Names{"B", "C"}));
}

class NestedGroupTest : public ::testing::Test {
 protected:
  // G holds A and H; H holds B.
  ResourcePtr a = plain("A");
  ResourcePtr b = plain("B");
  boost::shared_ptr<ZU::ZUResourceList> h = makeGroup("H", {b});
  boost::shared_ptr<ZU::ZUResourceList> g = makeGroup("G", {a, h});
};

TEST_F(NestedGroupTest, IsInGroupSearchesEveryLevelButDeleteOnlyDirectMembers) {
  for (const char* name : {"G", "A", "H", "B"}) EXPECT_TRUE(g->isInGroup(name)) << name;
  EXPECT_FALSE(g->isInGroup("b"));
  EXPECT_FALSE(h->isInGroup("A"));

  auto error = errorOf([&] { g->deleteResource("B"); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->getDescription(), "Resource not found B");
  EXPECT_EQ(memberNames(*g), (Names{"A", "H"}));
  EXPECT_EQ(memberNames(*h), Names{"B"});
}

TEST_F(NestedGroupTest, HttpGetIndentsEachLevel) {
  EXPECT_EQ(g->httpGet(0), "---G<br />------A<br />------H<br />---------B<br />");

  auto owner = zutest::makeOwner("o", "M");
  b->waitFor(owner, "", 0, {});
  EXPECT_EQ(g->httpGet(-1), "G<br />---A<br />---H<br />------B -> M eStrong null 0<br />");
}

TEST_F(NestedGroupTest, OwnersGetNestsLikeTheGroups) {
  EXPECT_EQ(g->ownersGet().serializeToText(), R"([["G"],[["A"],[["H"],[["B"]]]]])");

  a->waitFor(zutest::makeOwner("o", "M"), "", 0, {});
  EXPECT_EQ(g->ownersGet().serializeToText(), R"([["G"],[["A","M",null],[["H"],[["B"]]]]])");
}

TEST(GroupMembershipTest, OwnersGetLeavesOutMembersWithoutAValue) {
  // Members named "ZU..." (plain resources and groups) give an invalid value.
  auto onlyInvalid = makeGroup("G", {plain("ZUA"), makeGroup("ZUH", {plain("B")})});
  EXPECT_EQ(onlyInvalid->ownersGet().serializeToText(), R"([["G"]])");

  auto mixed = makeGroup(
      "G", {plain("ZUA"), plain("A"), boost::make_shared<ZU::ZUResourceState>("ZUS", nullptr)});
  EXPECT_EQ(mixed->ownersGet().serializeToText(), R"([["G"],[["A"],["ZUS"]]])");
}

TEST(GroupMembershipTest, IsResourceFreeStopsAtTheFirstBusyMember) {
  auto log = boost::make_shared<zutest::CallLog>();
  auto r1 = zutest::makeRecording("R1", log);
  auto r2 = zutest::makeRecording("R2", log);
  auto r3 = zutest::makeRecording("R3", log);
  r2->inner()->waitFor(zutest::makeOwner("o", "M"), "", 0, {});
  auto g = makeGroup("G", {r1, r2, r3});

  EXPECT_FALSE(g->isResourceFree());
  EXPECT_EQ(log->entries(), (Names{"R1.isResourceFree", "R2.isResourceFree"}));
}

TEST(GroupMembershipTest, IsResourceOwnedAsksEveryMember) {
  auto a = plain("A");
  auto b = plain("B");
  auto g = makeGroup("G", {a, b});
  auto owner = zutest::makeOwner("o", "M");
  a->waitFor(owner, "", 0, {});
  EXPECT_FALSE(g->isResourceOwned("M"));
  b->waitFor(owner, "", 0, {});
  EXPECT_TRUE(g->isResourceOwned("M"));
  EXPECT_FALSE(g->isResourceOwned("emptyOwner"));
}

TEST(GroupMembershipTest, AddResourceRefusesEmptyHandlesAndCycles) {
  auto k = makeGroup("K", {});
  auto h = makeGroup("H", {k});
  auto g = makeGroup("G", {h});

  auto empty = errorOf([&] { g->addResource(nullptr); });
  auto itself = errorOf([&] { g->addResource(g); });
  auto direct = errorOf([&] { h->addResource(g); });
  auto nested = errorOf([&] { k->addResource(g); });
  ASSERT_TRUE(empty && itself && direct && nested);
  EXPECT_EQ(empty->getModule(), "ZUResourceList");
  EXPECT_EQ(empty->getMethod(), "addResource");
  EXPECT_THAT(empty->getDescription(), HasSubstr("empty"));
  EXPECT_THAT(itself->getDescription(), HasSubstr("itself"));
  EXPECT_THAT(direct->getDescription(), HasSubstr("cycle"));
  EXPECT_THAT(nested->getDescription(), HasSubstr("cycle"));

  EXPECT_EQ(memberNames(*g), Names{"H"});
  EXPECT_EQ(memberNames(*h), Names{"K"});
  EXPECT_TRUE(k->getResourceList().empty());
  h->addResource(k);  // a second copy is no cycle
  EXPECT_EQ(memberNames(*h), (Names{"K", "K"}));
}

}  // namespace
