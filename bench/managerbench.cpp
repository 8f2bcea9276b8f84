#include "managerbench.h"
#include "benchsupport.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>

#include <zuresource/zuresource.h>

#include <zumanager/zumanager.h>

namespace zubench {

namespace {

using Clock = std::chrono::steady_clock;

std::vector<boost::shared_ptr<ZU::ZUResource>> plains(int count) {
  std::vector<boost::shared_ptr<ZU::ZUResource>> out;
  for (int i = 0; i < count; ++i)
    out.push_back(boost::make_shared<ZU::ZUResource>("R" + std::to_string(i), nullptr));
  return out;
}

/// A holder of priority 0 that ignores the request keeps R0 for the grace
/// period of `graceMs`; a request of priority 1 waits. Ms from the end of the
/// grace to the grant.
double preemption(int graceMs) {
  ZU::ZUManager manager(plains(1), {{"R0", {graceMs, ""}}});
  manager.openModule("Idle", nullptr);
  manager.makeOwner("Idle", "idle", 0);
  manager.openModule("Tele", nullptr);
  manager.makeOwner("Tele", "tele", 1);
  manager.acquire({"idle", "R0", 0, {}});
  Clock::time_point waits;
  ZU::ZUManager::WaitHandler onWait = [&waits](const ZU::ZUWaitReport&) { waits = Clock::now(); };
  manager.acquire({"tele", "R0", 10, {}}, onWait);
  return msBetween(waits + std::chrono::milliseconds(graceMs), Clock::now());
}

/// A module whose owner holds R0..R9 closes while one owner waits for each.
/// Ms from the close to the last grant.
double closeServesWaiters() {
  const int kCount = 10;
  ZU::ZUManager manager(plains(kCount));
  manager.openModule("Dead", nullptr);
  manager.makeOwner("Dead", "dead");
  for (int i = 0; i < kCount; ++i) manager.acquire({"dead", "R" + std::to_string(i), 0, {}});
  std::vector<std::future<Clock::time_point>> grants;
  for (int i = 0; i < kCount; ++i) {
    const std::string name = "w" + std::to_string(i);
    manager.openModule(name, nullptr);
    manager.makeOwner(name, name);
    grants.push_back(std::async(std::launch::async, [&manager, name, i] {
      manager.acquire({name, "R" + std::to_string(i), 10, {}});
      return Clock::now();
    }));
  }
  // Every waiter behind the holder: the status lists each among the waiters.
  for (int i = 0; i < kCount; ++i)
    while (manager.statusText().find("\"w" + std::to_string(i) + "\"") == std::string::npos)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
  const Clock::time_point closed = Clock::now();
  manager.closeModule("Dead");
  Clock::time_point last = closed;
  for (auto& g : grants) last = std::max(last, g.get());
  return msBetween(closed, last);
}

}  // namespace

void addManagerRows(ResultTable& table) {
  table.addSection("10. The manager (what the service and the simulator drive)");
  std::cerr << "manager: uncontended cycles..." << std::endl;
  {
    const int kCount = 20000;
    auto resource = boost::make_shared<ZU::ZUResource>("R0", nullptr);
    auto owner = ZU::ZUResource::createOwner(0, "a", "A", nullptr);
    const double library = fastest(kCount, [&] {
      resource->waitFor(owner, "", -1, {});
      resource->release(owner);
    });
    ZU::ZUManager manager(plains(1));
    manager.openModule("A", nullptr);
    manager.makeOwner("A", "a");
    const ZU::ZUAcquireRequest request{"a", "R0", -1, {}};
    const double managed = fastest(kCount, [&] {
      manager.acquire(request);
      manager.release("a", "R0");
    });
    table.addRatio("manager acquire + release", managed, "library waitFor + release", library,
                   0);
  }
  std::cerr << "manager: preemptions after a grace of 100 ms..." << std::endl;
  {
    std::vector<double> late;
    for (int i = 0; i < 5; ++i) late.push_back(preemption(100));
    table.addText("grace over -> waiter granted, median of 5", formatNumber(median(late), 1) + " ms",
                  "", "", "report", "-");
  }
  std::cerr << "manager: closing a module that holds 10 resources..." << std::endl;
  {
    std::vector<double> served;
    for (int i = 0; i < 5; ++i) served.push_back(closeServesWaiters());
    table.addText("module closed -> its 10 waiters granted, median of 5",
                  formatNumber(median(served), 1) + " ms", "", "", "report", "-");
  }
}

}  // namespace zubench
