// The weak owner: a placeholder that never contests and is never stopped.
#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuhost/zuos.h>
#include <zuresource/zuownerstrong.h>
#include <zuresource/zuownerweak.h>

#include "support/conflictrun.h"
#include "support/resourcehelpers.h"

using ZU::ZUOwnerStrong;
using ZU::ZUOwnerWeak;

namespace {

class WeakOwnerTest : public ::testing::Test {
 protected:
  boost::shared_ptr<ZUOwnerWeak> weak = boost::make_shared<ZUOwnerWeak>("box/x", "xModule");
};

TEST_F(WeakOwnerTest, IsBuiltAsAPlaceholderThatIgnoresRelease) {
  EXPECT_EQ(weak->name, "box/x");
  EXPECT_EQ(weak->moduleName, "xModule");
  EXPECT_EQ(weak->ownerType, "eWeak");
  EXPECT_TRUE(weak->ownerMutex && weak->conflictMutex);
  EXPECT_FALSE(weak->waitersMutex || weak->hierarchyOwner);
  weak->freeResource();
  EXPECT_FALSE(weak->resourceFreed);
  EXPECT_FALSE(weak->isParent(boost::make_shared<ZUOwnerStrong>("box", "M", nullptr)));
}

TEST_F(WeakOwnerTest, DeclinesEveryConflictAtOnce) {
  auto descendant = boost::make_shared<ZUOwnerStrong>("box/x/y", "M", nullptr);
  EXPECT_FALSE(weak->conflict("Head", descendant, 5));
  EXPECT_FALSE(weak->conflict("", nullptr, -1));
  EXPECT_TRUE(descendant->parentOwners.empty()) << "a weak owner hands nothing down";
  EXPECT_FALSE(weak->copyWaiters().isValid());
  EXPECT_EQ(weak->getTimeout(), "0");

  ZUOwnerWeak loose("emptyOwner", "emptyOwner");  // needs no shared handle
  EXPECT_FALSE(loose.conflict("Head", descendant, 0));
}

TEST_F(WeakOwnerTest, WaitsAsRequesterUntilTheHolderLetsGo) {
  // Its name extends the holder's, but only a strong owner answers isParent.
  auto holder = boost::make_shared<ZUOwnerStrong>("box", "boxModule", nullptr);
  zutest::ConflictRun run(*holder, "Head", weak, -1);
  ASSERT_TRUE(zutest::waitUntil([&] { return holder->copyWaiters().size() == 1; }));
  EXPECT_EQ(holder->copyWaiters().serializeToText(), R"(["xModule"])");
  weak->freeResource();  // ignored: the wait is never "box stop while waiting"
  ko::os::msleep(400);
  holder->freeResource();
  const zutest::ConflictOutcome outcome = run.wait();
  EXPECT_FALSE(outcome.result);
  EXPECT_FALSE(outcome.error) << outcome.error->toString();
  EXPECT_GE(outcome.elapsedMs, 400);
}

}  // namespace
