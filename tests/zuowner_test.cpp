// Services of the owner base: defaults, self handle and parent-owner records.
#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zuowner.h>

namespace {

/// The bare base, to see its own defaults (ZUOwner's destructor is protected).
class PlainOwner final : public ZU::ZUOwner {
 public:
  bool conflict(const std::string&, boost::shared_ptr<ZU::ZUOwner>, int) override {
    return false;
  }
};

class OwnerBaseTest : public ::testing::Test {
 protected:
  boost::shared_ptr<PlainOwner> owner = boost::make_shared<PlainOwner>();
};

TEST_F(OwnerBaseTest, StartsEmptyAndItsDefaultOperationsDoNothing) {
  EXPECT_TRUE(owner->name.empty() && owner->moduleName.empty() && owner->ownerType.empty());
  EXPECT_FALSE(owner->ownerMutex || owner->conflictMutex || owner->waitersMutex ||
               owner->hierarchyOwner);
  EXPECT_FALSE(owner->copyWaiters().isValid());  // no waitersMutex: read as is
  EXPECT_EQ(owner->getTimeout(), "0");
  owner->freeResource();
  EXPECT_FALSE(owner->resourceFreed);
  auto ancestor = boost::make_shared<PlainOwner>();
  owner->name = "box/a";
  ancestor->name = "box";
  EXPECT_FALSE(owner->isParent(ancestor));  // only a strong owner tests the names
}

TEST_F(OwnerBaseTest, GetThisSharesOwnershipOnlyWithASharedHandle) {
  boost::shared_ptr<ZU::ZUOwner> self = owner->getThis();
  EXPECT_EQ(self, owner);
  EXPECT_EQ(owner.use_count(), 2);
  PlainOwner loose;
  EXPECT_THROW(loose.getThis(), boost::bad_weak_ptr);
}

TEST_F(OwnerBaseTest, ParentOwnerRecordsAreWeakAndKeyedByExactName) {
  EXPECT_FALSE(owner->getParentOwner("Head"));
  EXPECT_TRUE(owner->parentOwners.empty()) << "a lookup must not add an entry";

  auto first = boost::make_shared<PlainOwner>();
  auto second = boost::make_shared<PlainOwner>();
  owner->setParentOwner(first, "Head");
  owner->setParentOwner(second, "Head");
  EXPECT_EQ(owner->getParentOwner("Head"), second);
  EXPECT_FALSE(owner->getParentOwner("head"));

  owner->setParentOwner(first, "LArm");
  first.reset();
  EXPECT_FALSE(owner->getParentOwner("LArm"));
  EXPECT_EQ(owner->parentOwners.count("LArm"), 1u) << "a dead entry stays";

  owner->setParentOwner(nullptr, "Legs");
  EXPECT_FALSE(owner->getParentOwner("Legs"));
  EXPECT_EQ(owner->parentOwners.size(), 3u);
}

}  // namespace
