// Writes a recording of a short run that makes most kinds of event, and a
// snapshot taken while two owners wait on each other: the input of the
// schema check. Usage: zurecord_sample FILE.jsonl
#include <iostream>
#include <thread>

#include <zuobserve/zurecorder.h>

#include "support/resourcehelpers.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: zurecord_sample FILE.jsonl\n";
    return 2;
  }
  using zutest::makeOwner;
  using zutest::makePlain;
  const std::vector<std::string> all;
  auto recorder = boost::make_shared<ZU::ZURecorder>(argv[1]);
  ZU::ZUObservers::add(recorder);

  auto r1 = makePlain("R1"), r2 = makePlain("R2");
  auto standing = boost::make_shared<ZU::ZUResourceState>("Standing", nullptr);
  auto body = zutest::makeGroup("Body", {r1, standing});
  auto a = makeOwner("a", "A"), b = makeOwner("b", "B"), child = makeOwner("a/x", "X");

  standing->setState(true);
  body->waitFor(a, "walk", -1, all);  // granted: wasFree, stateActivated
  r1->waitFor(child, "", -1, all);    // handed down
  r1->release(child);                 // handed back
  r1->waitFor(b, "", -1, {"R1"});     // not obtained
  r2->switchOwner(b, "", 0);          // switched
  std::thread cross([&] {             // a waits on b for R2 ...
    try {
      r2->waitFor(a, "", 2, all);
    } catch (const ZU::ZUError&) {
    }
  });
  zutest::waitUntil([&] { return b->copyWaiters().size() > 0; });
  std::thread back([&] {  // ... and b on a for R1: a cycle, then b is given back
    try {
      body->waitFor(b, "", 1, all);
    } catch (const ZU::ZUError&) {
    }
  });
  zutest::waitUntil([&] { return a->copyWaiters().size() > 0; });
  recorder->record(ZU::takeSnapshot({body, r2}));
  back.join();
  cross.join();
  standing->setState(false);  // a is told, and times out
  b->freeResource();
  try {
    r1->waitFor(b, "", -1, all);  // already stopped: its wait ends at the first poll
  } catch (const ZU::ZUError&) {
  }
  body->release(a);
  ZU::ZUEvent lost = ZU::ZUEvent::make(ZU::ZUEvent::Kind::Lost, "R1", b.get());
  lost.reason = "lease expired";
  ZU::ZUObservers::emit(lost);

  ZU::ZUObservers::remove(recorder);
  recorder->flush();
  return recorder->dropped() == 0 ? 0 : 1;
}
