// fleet_holder ENDPOINT TTL RESOURCE [TIMEOUT]: a robot process. Joins the
// fleet as robot "holder" (TTL 0: the default), asks for RESOURCE within
// TIMEOUT seconds (10 by default) and holds it until it is killed. It writes
// one line per happening, each with the time of the machine's monotonic
// clock in ms (the same clock in every process, so that the tests can order
// what two robots did):
//   held <ms> <token> <TTL granted, ms>
//   failed <ms> <description of the wait's error>
//   lost <ms> <reason>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <thread>

#include <boost/make_shared.hpp>

#include <zuresource/zuobserver.h>

#include <zufleet/zuresourcefleet.h>

namespace {

std::mutex outMutex;

long long nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void say(const std::string& line) {
  std::lock_guard<std::mutex> lock(outMutex);
  std::cout << line << std::endl;
}

/// Writes a "lost" line for each Lost event. Called from the session's threads.
class LossWriter : public ZU::ZUObserver {
 public:
  void onEvent(const ZU::ZUEvent& event) override {
    if (event.kind == ZU::ZUEvent::Kind::Lost)
      say("lost " + std::to_string(nowMs()) + " " + event.reason);
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4 && argc != 5) {
    std::cerr << "usage: fleet_holder ENDPOINT TTL RESOURCE [TIMEOUT]\n";
    return 2;
  }
  ZU::ZUFleetConfig config;
  config.endpoints = {argv[1]};
  config.robot = "holder";
  if (std::atoi(argv[2]) > 0) config.ttlSeconds = std::atoi(argv[2]);
  const int timeout = argc == 5 ? std::atoi(argv[4]) : 10;
  ZU::ZUObservers::add(boost::make_shared<LossWriter>());
  auto session = boost::make_shared<ZU::ZUFleetSession>(config);
  auto resource = ZU::ZUResourceFleet::create(argv[3], nullptr, session);
  auto owner = ZU::ZUResource::createOwner(0, "holder", "Holder", nullptr);
  try {
    resource->waitFor(owner, "", timeout, {});
    say("held " + std::to_string(nowMs()) + " " + std::to_string(resource->fencingToken()) + " " +
        std::to_string(session->leaseTtl().count()));
  } catch (const ZU::ZUError& e) {
    say("failed " + std::to_string(nowMs()) + " " + e.getDescription());
  }
  for (;;) std::this_thread::sleep_for(std::chrono::seconds(60));
}
