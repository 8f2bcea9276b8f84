// Owners taking turns on one resource: while the resource changes hands, the
// owners that wait for it must sleep, not spin.
#include <time.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <zuhost/zuos.h>

#include "support/resourcehelpers.h"

using namespace ZU;
using namespace zutest;

namespace {

double processCpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

// 16 owners each ask for the resource (limit 1 s), hold it 20 ms and release
// it, for one second; a released owner object is dropped while the others
// wait. Parameter: 0 for one plain resource, else a group of that many.
class Contention : public ::testing::TestWithParam<int> {};

TEST_P(Contention, WaitingOwnersUseLittleProcessorTimeAndTakeTurns) {
  const int kContenders = 16, kHoldMs = 20;
  boost::shared_ptr<ZUResource> resource = makePlain("Head");
  if (GetParam() > 0) {
    auto group = makeGroup("Body", {});
    for (int i = 0; i < GetParam(); ++i) group->addResource(makePlain("R" + std::to_string(i)));
    resource = group;
  }

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

  ko::os::msleep(100);  // everyone is waiting by now
  const double cpuBefore = processCpuSeconds();
  const auto start = std::chrono::steady_clock::now();
  ko::os::msleep(1000);
  const double wall =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double core = (processCpuSeconds() - cpuBefore) / wall;
  stop = true;
  for (std::thread& contender : contenders) contender.join();

  EXPECT_LT(core, 0.3) << "of one core, while " << kContenders << " owners took turns";
  EXPECT_GE(grants.load(), 3) << "a release is taken up within about one polling period";
  EXPECT_FALSE(overlapped) << "two owners held the resource at once";
}

INSTANTIATE_TEST_SUITE_P(PlainAndGroup, Contention, ::testing::Values(0, 4),
                         [](const ::testing::TestParamInfo<int>& info) {
                           return info.param == 0 ? std::string("Plain")
                                                  : "GroupOf" + std::to_string(info.param);
                         });

}  // namespace
