// The host's exception: its fields and its one-line text.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zuhost/zuerror.h>

using ::testing::HasSubstr;
using ::testing::Not;

namespace {

TEST(Error, KeepsItsFieldsAndTellsThemInOneLine) {
  const ZU::ZUError error("ResourceManager", "waitResource",
                          "resource wait has timeouted on Head",
                          "behavior/lib/zuresource/zuresource/zuownerstrong", 123);
  EXPECT_EQ(error.getModule(), "ResourceManager");
  EXPECT_EQ(error.getMethod(), "waitResource");
  EXPECT_EQ(error.getDescription(), "resource wait has timeouted on Head");
  EXPECT_EQ(error.getSourceFile(), "behavior/lib/zuresource/zuresource/zuownerstrong");
  EXPECT_EQ(error.getLine(), 123u);

  const std::string text = error.toString();
  for (const char* part : {"ResourceManager", "waitResource", "resource wait has timeouted on Head",
                           "behavior/lib/zuresource/zuresource/zuownerstrong", "123"})
    EXPECT_THAT(text, HasSubstr(part));
  EXPECT_THAT(text, Not(HasSubstr("\n")));
  EXPECT_EQ(std::string(error.what()), text);
}

}  // namespace
