// The holder handle of a resource: whole copies and replacements, identity
// tests that read no owner, and copies spared for handles the caller has.

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <zuresource/zuresource.h>

#include "support/resourcehelpers.h"

namespace {

using ZU::ZUHolderHandle;
using OwnerPtr = boost::shared_ptr<ZU::ZUOwner>;
using zutest::makeOwner;

class HolderHandleTest : public ::testing::Test {
 protected:
  HolderHandleTest() { handle.store(first); }

  OwnerPtr first = makeOwner("first", "FirstModule");
  OwnerPtr second = makeOwner("second", "SecondModule");
  ZUHolderHandle handle;
};

TEST_F(HolderHandleTest, StoreReplacesAndDropsTheOldHolder) {
  EXPECT_EQ(handle.load(), first);
  EXPECT_EQ(first.use_count(), 2);

  handle.store(second);
  EXPECT_EQ(handle.load(), second);
  EXPECT_EQ(first.use_count(), 1) << "the old holder's reference is dropped";
  EXPECT_TRUE(handle.is(second));
  EXPECT_FALSE(handle.is(first));
}

// Identity, not name: another object of the same name is not the holder.
TEST_F(HolderHandleTest, IsComparesObjectsNotNames) {
  OwnerPtr sameName = makeOwner("first", "FirstModule");
  EXPECT_TRUE(handle.is(first));
  EXPECT_FALSE(handle.is(sameName));
}

TEST_F(HolderHandleTest, LoadOrCopiesOnlyWhenTheHolderIsNotTheKnownHandle) {
  OwnerPtr copy;
  EXPECT_EQ(&handle.loadOr(first, copy), &first);
  EXPECT_FALSE(copy) << "no copy for the known holder";

  EXPECT_EQ(handle.loadOr(second, copy), first);
  EXPECT_EQ(copy, first) << "any other holder is copied, and so kept alive";
}

// Writers swap two holders without any other lock while readers copy the
// handle: every copy is one of the two, whole, and its object alive.
TEST_F(HolderHandleTest, ConcurrentCopiesAndReplacementsStayWhole) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers;
  for (int w = 0; w < 2; ++w)
    writers.emplace_back([&, w] {
      for (int i = 0; i < 20000; ++i) handle.store((i + w) % 2 ? first : second);
    });
  std::atomic<int> torn{0};
  std::thread reader([&] {
    while (!stop) {
      OwnerPtr seen = handle.load();
      if (seen != first && seen != second) ++torn;
      if (seen->name != "first" && seen->name != "second") ++torn;
    }
  });
  for (std::thread& writer : writers) writer.join();
  stop = true;
  reader.join();
  EXPECT_EQ(torn, 0);
}

}  // namespace
