// The owner base and the weak owner, which adds to it only a conflict that
// declines: a placeholder that never contests and is never stopped.
#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zuownerstrong.h>
#include <zuresource/zuownerweak.h>

using ZU::ZUOwnerStrong;
using ZU::ZUOwnerWeak;

namespace {

class WeakOwnerTest : public ::testing::Test {
 protected:
  boost::shared_ptr<ZUOwnerWeak> weak = boost::make_shared<ZUOwnerWeak>("box/x", "xModule");
  boost::shared_ptr<ZUOwnerStrong> strong = boost::make_shared<ZUOwnerStrong>("box", "M", nullptr);
};

TEST_F(WeakOwnerTest, DeclinesEveryConflictAtOnceAndIgnoresRelease) {
  auto descendant = boost::make_shared<ZUOwnerStrong>("box/x/y", "M", nullptr);
  EXPECT_FALSE(weak->conflict("Head", descendant, 5));
  EXPECT_TRUE(descendant->parentOwners.empty()) << "a weak owner hands nothing down";
  EXPECT_FALSE(ZUOwnerWeak("emptyOwner", "emptyOwner").conflict("Head", descendant, 0));
  weak->freeResource();  // as requester, then, it is never "box stop while waiting"
  EXPECT_FALSE(weak->resourceFreed);
  EXPECT_FALSE(weak->isParent(strong));
  EXPECT_EQ(weak->getTimeout(), "0");
}

TEST_F(WeakOwnerTest, ParentRecordsAreWeakAndKeyedByExactName) {
  EXPECT_FALSE(weak->getParentOwner("Head"));
  EXPECT_TRUE(weak->parentOwners.empty()) << "a lookup must not add an entry";
  weak->setParentOwner(weak, "Head");
  weak->setParentOwner(strong, "Head");
  EXPECT_EQ(weak->getParentOwner("Head"), strong);
  EXPECT_FALSE(weak->getParentOwner("head"));
  strong.reset();
  EXPECT_FALSE(weak->getParentOwner("Head"));
  EXPECT_EQ(weak->parentOwners.size(), 1u) << "a dead entry stays";
}

}  // namespace
