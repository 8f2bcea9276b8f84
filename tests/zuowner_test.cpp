// The owner base and the weak owner, a placeholder that never contests and
// is never stopped.
#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zuownerstrong.h>
#include <zuresource/zuownerweak.h>

namespace {

TEST(WeakOwner, DeclinesAtOnceIgnoresReleaseAndKeepsWeakParentsByExactName) {
  auto weak = boost::make_shared<ZU::ZUOwnerWeak>("box/x", "xModule");
  auto strong = boost::make_shared<ZU::ZUOwnerStrong>("box", "M", nullptr);
  auto descendant = boost::make_shared<ZU::ZUOwnerStrong>("box/x/y", "M", nullptr);
  EXPECT_FALSE(weak->conflict("Head", descendant, 5));
  EXPECT_TRUE(descendant->parentOwners.empty()) << "a weak owner hands nothing down";
  weak->freeResource();  // as requester, then, it is never "box stop while waiting"
  EXPECT_FALSE(weak->resourceFreed);

  EXPECT_FALSE(weak->getParentOwner("Head"));
  EXPECT_TRUE(weak->parentOwners.empty()) << "a lookup must not add an entry";
  weak->setParentOwner(weak, "Head");
  weak->setParentOwner(strong, "Head");
  EXPECT_EQ(weak->getParentOwner("Head"), strong);
  EXPECT_FALSE(weak->getParentOwner("head"));
  strong.reset();
  EXPECT_FALSE(weak->getParentOwner("Head")) << "the record must not keep its owner alive";
}

}  // namespace
