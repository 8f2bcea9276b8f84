// fleet_holder ENDPOINT TTL TIMEOUT: a robot process. Joins the fleet as
// robot "holder" (TTL 0: the default), asks for Lift within TIMEOUT seconds
// and holds it until it is killed. It writes one line per happening, each with
// the time of the machine's monotonic clock in ms (the same clock in every
// process, so that the tests can order what two robots did):
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

/// Writes "`what` <ms> `text`". Called from any thread.
void say(const std::string& what, const std::string& text) {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  std::lock_guard<std::mutex> lock(outMutex);
  std::cout << what << " " << std::chrono::duration_cast<std::chrono::milliseconds>(now).count()
            << " " << text << std::endl;
}

/// Writes a "lost" line for each Lost event. Called from the session's threads.
class LossWriter : public ZU::ZUObserver {
 public:
  void onEvent(const ZU::ZUEvent& event) override {
    if (event.kind == ZU::ZUEvent::Kind::Lost) say("lost", event.reason);
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: fleet_holder ENDPOINT TTL TIMEOUT\n";
    return 2;
  }
  ZU::ZUFleetConfig config{{argv[1]}, "holder"};
  if (std::atoi(argv[2]) > 0) config.ttlSeconds = std::atoi(argv[2]);
  ZU::ZUObservers::add(boost::make_shared<LossWriter>());
  auto session = boost::make_shared<ZU::ZUFleetSession>(config);
  auto resource = ZU::ZUResourceFleet::create("Lift", nullptr, session);
  auto owner = ZU::ZUResource::createOwner(0, "holder", "Holder", nullptr);
  try {
    resource->waitFor(owner, "", std::atoi(argv[3]), {});
    say("held", std::to_string(resource->fencingToken()) + " " +
                    std::to_string(session->leaseTtl().count()));
  } catch (const ZU::ZUError& e) {
    say("failed", e.getDescription());
  }
  for (;;) std::this_thread::sleep_for(std::chrono::seconds(60));
}
