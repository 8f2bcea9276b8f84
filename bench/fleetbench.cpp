#include "fleetbench.h"
#include "benchsupport.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <atomic>
#include <chrono>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include <sys/wait.h>

#include <boost/make_shared.hpp>

#include <zufleet/zuresourcefleet.h>
#include <zufleettesting/zuetcdserver.h>

extern char** environ;

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
    latencies.push_back(msBetween(released, granted));
  }
  (count % 2 ? b : a).release();
  std::sort(latencies.begin(), latencies.end());
  return latencies;
}

/// `etcdctl lock <name> -- <command>` as a process of its own: once it holds
/// the lock, its command prints its process id and sleeps; etcdctl gives the
/// lock back when the command ends.
class EtcdctlLock {
 public:
  EtcdctlLock(const std::string& endpoint, const std::string& name) {
    int out[2];
    // Close-on-exec: no later etcdctl keeps this one's pipe open.
    if (::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    std::string args[] = {"etcdctl", "--endpoints=" + endpoint, "lock", name, "--",
                          "sh", "-c", "echo $$; exec sleep 1000"};
    char* argv[] = {&args[0][0], &args[1][0], &args[2][0], &args[3][0], &args[4][0],
                    &args[5][0], &args[6][0], &args[7][0], nullptr};
    const int failed = posix_spawnp(&pid_, "etcdctl", &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    out_ = out[0];
    if (failed) pid_ = -1;
  }
  ~EtcdctlLock() {
    if (command_ > 0) ::kill(command_, SIGKILL);
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    ::close(out_);
  }
  bool started() const { return pid_ > 0; }
  /// Waits up to `ms` for the command to start: true once it holds the lock.
  bool awaitHeld(int ms) {
    pollfd p{out_, POLLIN, 0};
    char buffer[64] = {};
    if (::poll(&p, 1, ms) != 1 || ::read(out_, buffer, sizeof buffer - 1) <= 0) return false;
    command_ = std::atoi(buffer);
    return command_ > 0;
  }
  /// Ends its command: it gives the lock back.
  void release() { ::kill(command_, SIGTERM); }

 private:
  pid_t pid_ = -1;
  pid_t command_ = -1;
  int out_ = -1;
};

/// The same handovers between two `etcdctl lock` processes: the holder's
/// command ends -> the waiter's command starts. Each waiter is given 300 ms to start
/// and queue. Milliseconds, sorted; empty when etcdctl is missing.
std::vector<double> etcdctlHandovers(const std::string& endpoint, int count) {
  std::vector<double> latencies;
  auto holder = std::make_unique<EtcdctlLock>(endpoint, "bench-door");
  if (!holder->started() || !holder->awaitHeld(10000)) return latencies;
  for (int i = 0; i < count; ++i) {
    auto waiter = std::make_unique<EtcdctlLock>(endpoint, "bench-door");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const Clock::time_point released = Clock::now();
    holder->release();
    if (!waiter->awaitHeld(10000)) return {};
    latencies.push_back(msBetween(released, Clock::now()));
    holder = std::move(waiter);
  }
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

  std::cerr << "fleet: 40 handovers between two robots, 20 between two etcdctl lock..."
            << std::endl;
  {
    Robot a("a", endpoints), b("b", endpoints);
    const std::vector<double> latencies = handovers(a, b, 40);
    const std::vector<double> etcdctl = etcdctlHandovers(endpoints[0], 20);
    const double middle = median(latencies);
    table.addText("fleet handover latency, median of 40", formatNumber(middle, 1) + " ms", "",
                  "", "report", "-");
    table.addText("fleet handover latency, maximum of 40",
                  formatNumber(latencies.back(), 1) + " ms", "", "", "report", "-");
    if (!etcdctl.empty()) {
      const double base = median(etcdctl);
      table.addText("fleet handover latency, median", formatNumber(middle, 1) + " ms",
                    "etcdctl lock (with its command's start), median of 20 " + formatNumber(base, 1) + " ms",
                    formatNumber(middle / base, 2), "report", "-");
    }
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
    const double seconds = msBetween(start, Clock::now()) / 1e3;
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
