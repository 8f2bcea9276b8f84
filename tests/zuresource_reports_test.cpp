// The status reports of a plain resource: httpGet lines and ownersGet values.

#include <future>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zuresource.h>

#include "support/resourcehelpers.h"
#include "support/scriptedowner.h"

namespace {

using ZU::ZUResource;
using OwnerPtr = boost::shared_ptr<ZU::ZUOwner>;
using Names = std::vector<std::string>;
using zutest::makeOwner;

class ResourceReports : public ::testing::Test {
 protected:
  void take(const OwnerPtr& owner) { ASSERT_TRUE(head->waitFor(owner, "", 1, Names()).empty()); }

  boost::shared_ptr<ZUResource> head = boost::make_shared<ZUResource>("Head", nullptr);
  OwnerPtr walker = makeOwner("box", "Walker");
};

TEST_F(ResourceReports, HttpGetOfAFreeResourceIsItsIndentedName) {
  ZUResource arm("Arm", nullptr);
  EXPECT_EQ(arm.httpGet(-1), "Arm<br />");
  EXPECT_EQ(arm.httpGet(-7), "Arm<br />");
  EXPECT_EQ(arm.httpGet(0), "---Arm<br />");
  EXPECT_EQ(arm.httpGet(2), "---------Arm<br />");
}

TEST_F(ResourceReports, HttpGetOfAHeldResourceNamesTheHoldersModule) {
  take(walker);
  EXPECT_EQ(head->httpGet(-1), "Head -> Walker eStrong null 0<br />");
  EXPECT_EQ(head->httpGet(0), "---Head -> Walker eStrong null 0<br />");
  EXPECT_EQ(head->httpGet(2), "---------Head -> Walker eStrong null 0<br />");

  walker->timeout = 2400;  // the holder's latest wait, in ms: shown in whole seconds
  EXPECT_EQ(head->httpGet(1), "------Head -> Walker eStrong null 2<br />");

  head->release(walker);
  EXPECT_EQ(head->httpGet(0), "---Head<br />");
}

TEST_F(ResourceReports, AHolderNamedEmptyOwnerReadsFree) {
  head->switchOwner(zutest::ScriptedOwner::create("emptyOwner", "Ghost"), "", 0);
  EXPECT_EQ(head->httpGet(0), "---Head<br />");
  EXPECT_EQ(head->ownersGet().serializeToText(), "[\"Head\"]");
}

TEST_F(ResourceReports, BothReportsShowAWaiterWhileItWaits) {
  take(walker);
  OwnerPtr dancer = makeOwner("dancer", "Dancer");
  auto wait = std::async(std::launch::async, [&] { return head->waitFor(dancer, "", 5, Names()); });
  ASSERT_TRUE(zutest::waitUntil([&] { return walker->copyWaiters().size() == 1; }));

  EXPECT_EQ(head->httpGet(0), "---Head -> Walker eStrong [\"Dancer\"] 0<br />");
  EXPECT_EQ(head->ownersGet().serializeToText(), "[\"Head\",\"Walker\",[\"Dancer\"]]");

  head->release(walker);
  EXPECT_TRUE(wait.get().empty());
  EXPECT_EQ(head->httpGet(0), "---Head -> Dancer eStrong null 0<br />");
}

TEST_F(ResourceReports, OwnersGetIsTheNameAloneWhenFreeAndAddsModuleAndWaitersWhenHeld) {
  ZU::ZUValue free = head->ownersGet();
  ASSERT_TRUE(free.isArray());
  EXPECT_EQ(free.serializeToText(), "[\"Head\"]");

  take(walker);
  ZU::ZUValue held = head->ownersGet();
  ASSERT_EQ(held.size(), 3u);
  EXPECT_FALSE(held[2].isValid()) << "the holder's waiters before any wait";
  EXPECT_EQ(held.serializeToText(), "[\"Head\",\"Walker\",null]");
}

TEST_F(ResourceReports, OwnersGetHidesNamesStartingWithZUOnly) {
  for (const std::string& name : {std::string("ZU"), std::string("ZUHead"), std::string("ZU\0", 3)}) {
    ZUResource hidden(name, nullptr);
    EXPECT_FALSE(hidden.ownersGet().isValid()) << name;
    hidden.switchOwner(walker, "", 0);
    EXPECT_FALSE(hidden.ownersGet().isValid()) << name;
  }
  for (const std::string name : {"Zu", "zu", "zU", "Z", "", "UZ"}) {
    ZUResource shown(name, nullptr);
    EXPECT_EQ(shown.ownersGet().serializeToText(), "[\"" + name + "\"]");
    shown.switchOwner(walker, "", 0);
    EXPECT_EQ(shown.ownersGet().serializeToText(), "[\"" + name + "\",\"Walker\",null]");
  }
}

}  // namespace
