// Owners taking turns on one resource: while the resource changes hands, the
// owners that wait for it must sleep, not spin.
#include <atomic>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <zuhost/zuos.h>

#include "support/resourcehelpers.h"
#include "support/threads.h"

using namespace ZU;
using namespace zutest;

namespace {

// 16 owners each ask for the resource (limit 1 s), hold it 20 ms and release
// it, for one second; a released owner object is dropped while the others
// wait. Parameter: one plain resource, or a group of four.
class Contention : public ::testing::TestWithParam<bool> {};

TEST_P(Contention, WaitingOwnersUseLittleProcessorTimeAndTakeTurns) {
  const int kContenders = 16, kHoldMs = 20;
  auto group =
      makeGroup("Body", {makePlain("R0"), makePlain("R1"), makePlain("R2"), makePlain("R3")});
  const boost::shared_ptr<ZUResource> resource = GetParam() ? group : makePlain("Head");

  std::atomic<bool> stop(false), overlapped(false);
  std::atomic<int> grants(0), holding(0);
  std::vector<std::thread> contenders;
  for (int i = 0; i < kContenders; ++i) {
    contenders.emplace_back([&, i] {
      const std::string name = "box" + std::to_string(100 + i);  // none a prefix of another
      while (!stop) {
        // A fresh owner per request: a released owner stays flagged as
        // released, and its own next wait would end at its first poll.
        boost::shared_ptr<ZUOwner> owner = makeOwner(name, name + "Module");
        if (errorOf([&] { resource->waitFor(owner, "", 1, {}); })) continue;
        if (holding.fetch_add(1) != 0) overlapped = true;
        ++grants;
        ko::os::msleep(kHoldMs);
        holding.fetch_sub(1);
        resource->release(owner);
      }
    });
  }

  ko::os::msleep(100);                          // everyone is waiting by now
  const std::clock_t cpuBefore = std::clock();  // processor time of the whole process
  const Stopwatch wall;
  ko::os::msleep(1000);
  const double core = double(std::clock() - cpuBefore) / CLOCKS_PER_SEC * 1000 / wall.elapsedMs();
  stop = true;
  for (std::thread& contender : contenders) contender.join();

  EXPECT_LT(core, 0.3) << "of one core, while " << kContenders << " owners took turns";
  EXPECT_GE(grants.load(), 3) << "a release is taken up within about one polling period";
  EXPECT_FALSE(overlapped) << "two owners held the resource at once";
}

INSTANTIATE_TEST_SUITE_P(PlainAndGroup, Contention, ::testing::Values(false, true),
                         [](const auto& info) {
                           return std::string(info.param ? "GroupOf4" : "Plain");
                         });

}  // namespace
