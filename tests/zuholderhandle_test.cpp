// The holder handle of a resource: copies and replacements stay whole.
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
