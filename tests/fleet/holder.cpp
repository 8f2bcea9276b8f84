// fleet_holder ENDPOINT TTL RESOURCE: joins the fleet as robot "holder", takes
// RESOURCE, prints "held <token>" and holds it until it is killed.
#include <cstdlib>
#include <iostream>
#include <thread>

#include <boost/make_shared.hpp>

#include <zufleet/zuresourcefleet.h>

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: fleet_holder ENDPOINT TTL RESOURCE\n";
    return 2;
  }
  ZU::ZUFleetConfig config;
  config.endpoints = {argv[1]};
  config.robot = "holder";
  config.ttlSeconds = std::atoi(argv[2]);
  auto session = boost::make_shared<ZU::ZUFleetSession>(config);
  auto resource = ZU::ZUResourceFleet::create(argv[3], nullptr, session);
  auto owner = ZU::ZUResource::createOwner(0, "holder", "Holder", nullptr);
  resource->waitFor(owner, "", 10, {});
  std::cout << "held " << resource->fencingToken() << std::endl;
  for (;;) std::this_thread::sleep_for(std::chrono::seconds(60));
}
