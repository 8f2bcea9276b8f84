// The holder handle of a resource: whole copies and replacements, identity
// tests that read no owner, and copies spared for handles the caller has.
#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include <zuresource/zuresource.h>

#include "support/resourcehelpers.h"

namespace {

using OwnerPtr = boost::shared_ptr<ZU::ZUOwner>;
using zutest::makeOwner;

class HolderHandleTest : public ::testing::Test {
 protected:
  HolderHandleTest() { handle.store(first); }

  OwnerPtr first = makeOwner("first", "FirstModule");
  OwnerPtr second = makeOwner("second", "SecondModule");
  ZU::ZUHolderHandle handle;
};

TEST_F(HolderHandleTest, StoreDropsTheOldHolderAndIsAndLoadOrCompareObjectsNotNames) {
  EXPECT_FALSE(handle.is(makeOwner("first", "FirstModule")));
  OwnerPtr copy;
  EXPECT_EQ(&handle.loadOr(first, copy), &first);
  EXPECT_FALSE(copy) << "no copy for the known holder";
  handle.store(second);
  EXPECT_EQ(first.use_count(), 1) << "the old holder's reference is dropped";
  EXPECT_EQ(handle.loadOr(first, copy), second);
  EXPECT_EQ(copy, second) << "any other holder is copied, and so kept alive";
}

// Writers swap two holders without any other lock while a reader copies
// the handle: every copy is one of the two, whole, and its object alive.
TEST_F(HolderHandleTest, ConcurrentCopiesAndReplacementsStayWhole) {
  std::atomic<bool> stop{false};
  std::atomic<int> torn{0};
  std::thread reader([&] {
    for (OwnerPtr seen; !stop;)
      if (((seen = handle.load()) != first && seen != second) || seen->name.empty()) ++torn;
  });
  std::thread writer([&] {
    for (int i = 0; i < 20000; ++i) handle.store(i % 2 ? first : second);
  });
  for (int i = 0; i < 20000; ++i) handle.store(i % 2 ? second : first);
  writer.join();
  stop = true;
  reader.join();
  EXPECT_EQ(torn, 0);
}

}  // namespace
