// A strong owner holds the robot's head; a second behaviour asks for it and
// waits. The holder's module is told "__onResource__" and lets go, and the
// waiting behaviour gets the head within one polling period.
#include <chrono>
#include <iostream>
#include <thread>

#include <boost/make_shared.hpp>

#include <zuhost/zuhost.h>

#include <zuresource/zuresource.h>

using namespace ZU;

int main() {
  const auto start = std::chrono::steady_clock::now();
  auto say = [&start](const std::string& what) {
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                  std::chrono::steady_clock::now() - start)
                  .count();
    std::cout << ms << " ms  " << what << std::endl;
  };

  boost::shared_ptr<ZUBroker> broker = boost::make_shared<ZUBroker>();
  boost::shared_ptr<ZUResource> head = boost::make_shared<ZUResource>("Head", nullptr);

  boost::shared_ptr<ZUOwner> tracker = ZUResource::createOwner(0, "tracker", "Tracker", nullptr);
  boost::shared_ptr<ZUOwner> speaker = ZUResource::createOwner(0, "speaker", "Speaker", nullptr);
  tracker->setParentBroker(broker);
  speaker->setParentBroker(broker);

  // The tracker's module gives the head back when somebody wants it.
  boost::shared_ptr<ZUModule> trackerModule = boost::make_shared<ZUModule>("Tracker");
  trackerModule->bindMethod<std::string>("__onResource__", [&](const std::string& wanted) {
    say("Tracker is told \"__onResource__\" for " + wanted + "; it lets go in 300 ms");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    head->release(tracker);
    say("Tracker released " + wanted);
  });
  broker->addModule(trackerModule);
  broker->addModule(boost::make_shared<ZUModule>("Speaker"));

  head->waitFor(tracker, "track", -1, {});
  say("tracker holds the head:  " + head->httpGet(0));

  std::thread waiting([&] {
    say("speaker asks for the head (time limit 5 s)");
    try {
      head->waitFor(speaker, "speak", 5, {});
      say("speaker got the head:    " + head->httpGet(0));
    } catch (const ZUError& e) {
      say("speaker failed: " + e.getDescription());
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  say("while it waits:          " + head->httpGet(0));
  waiting.join();

  head->release(speaker);
  say("after the speaker's release: " + head->httpGet(0));
  trackerModule->waitIdle();
  return 0;
}
