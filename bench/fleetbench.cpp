#include "fleetbench.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iostream>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>

#include <zufleettesting/zuetcdserver.h>
#include <zufleet/zuresourcefleet.h>

namespace zubench {

namespace {

using Clock = std::chrono::steady_clock;

/// One robot with its session, its copy of the fleet resource and one owner.
struct Robot {
  boost::shared_ptr<ZU::ZUFleetSession> session;
  boost::shared_ptr<ZU::ZUResourceFleet> door;
  boost::shared_ptr<ZU::ZUOwner> owner;

  Robot(const std::string& name, const std::vector<std::string>& endpoints) {
    ZU::ZUFleetConfig config;
    config.endpoints = endpoints;
    config.robot = name;
    session = boost::make_shared<ZU::ZUFleetSession>(config);
    door = ZU::ZUResourceFleet::create("Door", nullptr, session);
    owner = ZU::ZUResource::createOwner(0, name, name, nullptr);
  }
  void take() { door->waitFor(owner, "", 60, {}); }
  void release() { door->release(owner); }
  bool waiting() { return door->httpGet(0).find(" fleet waiting") != std::string::npos; }
};

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

/// Release on one robot -> the other robot's waitFor returns, `count` times,
/// the two robots taking turns. Milliseconds, sorted.
std::vector<double> handovers(Robot& a, Robot& b, int count) {
  std::vector<double> latencies;
  a.take();
  for (int i = 0; i < count; ++i) {
    Robot& holder = i % 2 ? b : a;
    Robot& waiter = i % 2 ? a : b;
    Clock::time_point granted;
    std::thread wait([&] {
      waiter.take();
      granted = Clock::now();
    });
    while (!waiter.waiting()) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    const Clock::time_point released = Clock::now();
    holder.release();
    wait.join();
    latencies.push_back(std::chrono::duration<double, std::milli>(granted - released).count());
  }
  (count % 2 ? b : a).release();
  std::sort(latencies.begin(), latencies.end());
  return latencies;
}

/// Traffic of all `robots` together.
ZU::ZUEtcdTraffic traffic(const std::vector<std::unique_ptr<Robot>>& robots) {
  ZU::ZUEtcdTraffic sum;
  for (const auto& robot : robots) {
    const ZU::ZUEtcdTraffic t = robot->session->client().traffic();
    sum.requests += t.requests;
    sum.writes += t.writes;
    sum.bytes += t.bytes;
  }
  return sum;
}

}  // namespace

void addFleetRows(ResultTable& table) {
  table.addSection("9. Fleet resources on one local etcd (real time)");
  std::cerr << "fleet: starting etcd..." << std::endl;
  ZU::ZUEtcdServer etcd;
  const std::vector<std::string> endpoints = etcd.endpoints();

  std::cerr << "fleet: 40 handovers between two robots..." << std::endl;
  {
    Robot a("a", endpoints), b("b", endpoints);
    const std::vector<double> latencies = handovers(a, b, 40);
    table.addText("fleet handover latency, median of 40",
                  formatNumber(latencies[latencies.size() / 2], 1) + " ms", "", "", "report", "-");
    table.addText("fleet handover latency, maximum of 40",
                  formatNumber(latencies.back(), 1) + " ms", "", "", "report", "-");
  }

  std::cerr << "fleet: one robot, 50 uncontended grants..." << std::endl;
  {
    std::vector<std::unique_ptr<Robot>> one;
    one.push_back(std::make_unique<Robot>("solo", endpoints));
    one[0]->take();  // the lease is granted once, before counting
    one[0]->release();
    const ZU::ZUEtcdTraffic before = traffic(one);
    for (int i = 0; i < 50; ++i) {
      one[0]->take();
      one[0]->release();
    }
    const ZU::ZUEtcdTraffic after = traffic(one);
    table.addText("uncontended grant + release: requests, writes",
                  formatNumber((after.requests - before.requests) / 50.0, 1) + " requests",
                  formatNumber((after.writes - before.writes) / 50.0, 1) + " writes", "", "report",
                  "-");
    table.addText("uncontended grant + release: bytes on the wire",
                  formatNumber((after.bytes - before.bytes) / 50.0, 0) + " B", "", "", "report",
                  "-");
  }

  const int kRobots = 8, kSeconds = 5;
  std::cerr << "fleet: " << kRobots << " robots cycling for " << kSeconds << " s..." << std::endl;
  {
    std::vector<std::unique_ptr<Robot>> robots;
    for (int i = 0; i < kRobots; ++i)
      robots.push_back(std::make_unique<Robot>("r" + std::to_string(i), endpoints));
    for (auto& robot : robots) {  // leases granted before counting
      robot->take();
      robot->release();
    }
    const ZU::ZUEtcdTraffic before = traffic(robots);
    std::atomic<long> cycles{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    const Clock::time_point start = Clock::now();
    for (auto& robot : robots)
      threads.emplace_back([&, r = robot.get()] {
        while (!stop) {
          r->take();
          r->release();
          ++cycles;
        }
      });
    std::this_thread::sleep_for(std::chrono::seconds(kSeconds));
    stop = true;
    for (std::thread& thread : threads) thread.join();
    const double seconds = msSince(start) / 1e3;
    const ZU::ZUEtcdTraffic after = traffic(robots);
    const double grants = static_cast<double>(cycles.load());
    table.addText(std::to_string(kRobots) + " robots, one resource: lock cycles",
                  formatNumber(grants / seconds, 1) + " /s", "", "", "report", "-");
    table.addText(std::to_string(kRobots) + " robots: requests, writes per grant",
                  formatNumber((after.requests - before.requests) / grants, 1) + " requests",
                  formatNumber((after.writes - before.writes) / grants, 1) + " writes", "",
                  "report", "-");
    table.addText(std::to_string(kRobots) + " robots: bytes per grant (all robots)",
                  formatNumber((after.bytes - before.bytes) / grants, 0) + " B", "", "", "report",
                  "-");
  }
}

}  // namespace zubench
