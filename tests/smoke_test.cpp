#include <gtest/gtest.h>

#include <zuresource/zuresource.h>

TEST(Smoke, FreeResourceIsTaken) {
  auto r = boost::shared_ptr<ZU::ZUResource>(new ZU::ZUResource("Head", nullptr));
  auto o = ZU::ZUResource::createOwner(0, "a", "A", nullptr);
  EXPECT_TRUE(r->waitFor(o, "", 0, {}).empty());
  EXPECT_FALSE(r->isResourceFree());
}
