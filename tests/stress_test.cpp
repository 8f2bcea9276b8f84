// Randomized, seeded stress of plain resources, state resources and nested
// groups under contention, checking what the library promises while it runs.
//
// Environment: ZU_STRESS_SECONDS (default 20), ZU_STRESS_SEED (default: taken
// from the clock and printed), ZU_STRESS_THREADS (8 to 32, default 16).
//
// One thread acts for each owner family: a root owner and a stack of its
// descendants, pushed and popped the way a behaviour runs sub-behaviours, so
// that hand-downs and hand-backs happen. A holder and its descendants never act
// from two threads at once: a hand-down replaces the holder under no lock, and a
// holder releasing on one thread while its descendant's hand-down is in flight
// on another could leave two holders. Every wait has a finite time limit (0 or
// 1 s): a waiter that clears a releasing holder's flag just before the resource
// goes back to its placeholder makes the waiters on that holder sit out their
// limit, and only the limit ends those waits. (Waits on one holder share its
// flag: a wait that starts on it for a resource it keeps can likewise hide its
// release of another resource from that one's waiters.)

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuhost/zubroker.h>
#include <zuresource/zuresourcelist.h>
#include <zuresource/zuresourcestate.h>

#include "support/holdlog.h"
#include "support/resourcehelpers.h"

namespace {

using Clock = std::chrono::steady_clock;
using Names = std::vector<std::string>;
using ResourcePtr = boost::shared_ptr<ZU::ZUResource>;
using StatePtr = boost::shared_ptr<ZU::ZUResourceState>;
using OwnerPtr = boost::shared_ptr<ZU::ZUOwner>;

int envInt(const char* name, int fallback) {
  const char* text = std::getenv(name);
  return text && *text ? std::atoi(text) : fallback;
}

bool contains(const Names& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// A resource that an owner may ask for, with the leaves it stands for.
struct Target {
  ResourcePtr resource;
  std::vector<ResourcePtr> plainLeaves;
  std::vector<StatePtr> stateLeaves;
  std::set<std::string> leafNames;
};

void collectLeaves(const ResourcePtr& resource, Target& target) {
  if (auto group = boost::dynamic_pointer_cast<ZU::ZUResourceList>(resource)) {
    for (const ResourcePtr& member : group->getResourceList()) collectLeaves(member, target);
    return;
  }
  target.leafNames.insert(resource->name);
  if (auto state = boost::dynamic_pointer_cast<ZU::ZUResourceState>(resource))
    target.stateLeaves.push_back(state);
  else
    target.plainLeaves.push_back(resource);
}

long msSince(Clock::time_point start) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// Everything the families share. Thread safe: the containers are filled
// before the threads start and never change afterwards (the resources in them
// are thread safe), the counters are atomic, each hold log locks itself and the
// failure list is guarded by failuresMutex.
struct World {
  explicit World(unsigned seed) : seed(seed), broker(boost::make_shared<ZU::ZUBroker>()) {
    for (int i = 0; i < 12; ++i)
      plains.push_back(boost::make_shared<ZU::ZUResource>("R" + std::to_string(i), nullptr));
    for (int i = 0; i < 3; ++i)
      states.push_back(boost::make_shared<ZU::ZUResourceState>("S" + std::to_string(i), nullptr));
    states[0]->setState(true);
    states[1]->setState(true);
    const auto& R = plains;
    const auto& S = states;
    // Shared members, two levels of nesting, and R5/R6 asked for in both
    // orders (G3, G5), so that group waits also run into each other.
    auto g1 = zutest::makeGroup("G1", {R[2], R[3]});
    auto g2 = zutest::makeGroup("G2", {g1, R[4], S[1]});
    groups = {zutest::makeGroup("G0", {R[0], R[1], S[0]}), g1, g2,
              zutest::makeGroup("G3", {R[5], g2, R[6]}),
              zutest::makeGroup("G4", {R[7], R[1], S[2]}),
              zutest::makeGroup("G5", {R[6], R[5]}),
              zutest::makeGroup("G6", {R[8], R[9], R[10]}),
              zutest::makeGroup("G7", {R[11], R[9]})};
    std::vector<ResourcePtr> all(plains.begin(), plains.end());
    all.insert(all.end(), states.begin(), states.end());
    all.insert(all.end(), groups.begin(), groups.end());
    for (const ResourcePtr& resource : all) {
      targets.push_back(Target{resource, {}, {}, {}});
      collectLeaves(resource, targets.back());
      names.push_back(resource->name);
    }
    for (const ResourcePtr& plain : plains) holdLogs[plain->name];  // built before sharing
  }

  void fail(const std::string& what) {
    std::lock_guard<std::mutex> lock(failuresMutex);
    if (failures.size() < 20) failures.push_back(what);
  }
  void progress() { lastProgressMs = msSince(start); }

  const unsigned seed;
  const Clock::time_point start = Clock::now();
  boost::shared_ptr<ZU::ZUBroker> broker;
  std::vector<ResourcePtr> plains;
  std::vector<StatePtr> states;
  std::vector<boost::shared_ptr<ZU::ZUResourceList>> groups;
  std::vector<Target> targets;
  Names names;
  std::map<std::string, zutest::HoldLog> holdLogs;  // the map itself is immutable

  std::atomic<long> lastProgressMs{0};
  std::atomic<bool> stopping{false};
  std::atomic<int> waits{0}, granted{0}, partial{0}, handDowns{0}, timeouts{0},
      boxStops{0}, toggles{0}, notifications{0};
  std::mutex failuresMutex;
  Names failures;  // guarded by failuresMutex
};

// One owner family, driven by one thread: a stack of owners, each the
// descendant of the one below it, the top one acting. Not shared between
// threads; its module's task only touches the world's atomic counter.
class Family {
 public:
  Family(World& world, int index)
      : world_(world),
        rootName_("F" + std::string(index < 10 ? "0" : "") + std::to_string(index)),
        moduleName_("M" + rootName_),
        rng_(world.seed * 7919u + static_cast<unsigned>(index)),
        module_(boost::make_shared<ZU::ZUModule>(moduleName_)) {
    World* w = &world_;
    module_->bindMethod<std::string>("__onResource__",
                                     [w](const std::string&) { ++w->notifications; });
    world_.broker->addModule(module_);
  }
  // The module stops with its family, while the counters it touches live.
  ~Family() { world_.broker->removeModule(moduleName_); }

  void run(Clock::time_point deadline) {
    while (Clock::now() < deadline) {
      step();
      world_.progress();
    }
    while (!stack_.empty()) {  // descendants before their ancestors
      pop();
      world_.progress();
    }
  }

 private:
  struct Frame {
    OwnerPtr owner;
    const Target* target = nullptr;
    std::vector<ResourcePtr> heldPlain;  // leaves obtained, for the hold logs
    Clock::time_point got;
  };

  int pick(std::size_t n) {
    return std::uniform_int_distribution<int>(0, static_cast<int>(n) - 1)(rng_);
  }

  void step() {
    const int dice = pick(100);
    if (dice < 6) return toggleState();
    if (dice < 10) return report();
    if (dice < 40 && !stack_.empty() && stack_.back().heldPlain.size() > 1) return releaseOne();
    if (stack_.empty() || (stack_.size() < 3 && dice < 55)) return push();
    pop();
  }

  void push() {
    const std::string name = stack_.empty()
                                 ? rootName_
                                 : stack_.back().owner->name + "." + char('a' + pick(2));
    Frame frame;
    frame.owner = ZU::ZUResource::createOwner(0, name, moduleName_, nullptr);
    frame.owner->setParentBroker(world_.broker);
    // Now and then a release of something the new owner does not hold: its
    // next contested wait then fails with "box stop while waiting".
    if (pick(100) < 5) world_.targets[pick(world_.targets.size())].resource->release(frame.owner);
    acquire(frame, chooseTarget());
    stack_.push_back(frame);
    if (pick(4) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(pick(30)));
  }

  // Half the time a descendant asks for what its parent holds: a hand-down.
  // Otherwise half the time a group, so that owners often hold several
  // resources and let go of them one by one.
  const Target& chooseTarget() {
    if (!stack_.empty() && stack_.back().target && pick(2) == 0) {
      const Frame& parent = stack_.back();
      if (!parent.heldPlain.empty() && pick(2) == 0) {
        const std::string& leaf = parent.heldPlain[pick(parent.heldPlain.size())]->name;
        for (const Target& t : world_.targets)
          if (t.resource->name == leaf) return t;
      }
      return *parent.target;
    }
    const std::size_t firstGroup = world_.plains.size() + world_.states.size();
    if (pick(2) == 0) return world_.targets[firstGroup + pick(world_.groups.size())];
    return world_.targets[pick(world_.targets.size())];
  }

  void acquire(Frame& frame, const Target& target) {
    const OwnerPtr& owner = frame.owner;
    const int timeout = pick(2);
    Names noWait;
    if (pick(100) < 30)
      for (int i = pick(3); i >= 0; --i) noWait.push_back(world_.names[pick(world_.names.size())]);
    frame.target = &target;
    ++world_.waits;
    Names result;
    try {
      result = target.resource->waitFor(owner, owner->name, timeout, noWait);
    } catch (const ZU::ZUError& error) {
      if (!documented(error, target))
        world_.fail(owner->name + " waiting for " + target.resource->name +
                    ": undocumented error " + error.toString());
      expectHoldsNothing(owner, target, "after a failed wait");
      return;
    } catch (const std::exception& error) {
      world_.fail(owner->name + " waiting for " + target.resource->name +
                  ": unexpected exception " + error.what());
      return;
    }
    frame.got = Clock::now();
    for (const std::string& name : result)
      if (!target.leafNames.count(name) || !contains(noWait, name))
        world_.fail(owner->name + " waiting for " + target.resource->name +
                    ": result names " + name + ", which it may not give up");
    ++(result.empty() ? world_.granted : world_.partial);
    for (const ResourcePtr& plain : target.plainLeaves) {
      if (contains(result, plain->name)) continue;
      if (plain->currentOwner.load()->name != owner->name)
        world_.fail(owner->name + " was granted " + target.resource->name + " but " +
                    plain->currentOwner.load()->name + " holds " + plain->name);
      if (owner->getParentOwner(plain->name)) ++world_.handDowns;
      frame.heldPlain.push_back(plain);
    }
    for (const StatePtr& state : target.stateLeaves)
      if (!contains(result, state->name) && !contains(zutest::holderNames(*state), owner->name))
        world_.fail(owner->name + " was granted " + state->name + " but is not a holder");
  }

  bool documented(const ZU::ZUError& error, const Target& target) {
    if (error.getModule() != "ResourceManager" || error.getMethod() != "waitResource")
      return false;
    const std::string& text = error.getDescription();
    if (text == "box stop while waiting") {
      ++world_.boxStops;
      return true;
    }
    const std::string prefix = "resource wait has timeouted on ";
    if (text.compare(0, prefix.size(), prefix) != 0 ||
        !target.leafNames.count(text.substr(prefix.size())))
      return false;
    ++world_.timeouts;
    return true;
  }

  void expectHoldsNothing(const OwnerPtr& owner, const Target& target, const char* when) {
    for (const ResourcePtr& plain : target.plainLeaves)
      if (plain->currentOwner.load()->name == owner->name)
        world_.fail(owner->name + " still holds " + plain->name + " " + when);
    for (const StatePtr& state : target.stateLeaves)
      if (contains(zutest::holderNames(*state), owner->name))
        world_.fail(owner->name + " is still a holder of " + state->name + " " + when);
  }

  void pop() {
    const Frame& top = stack_.back();
    if (top.target) {
      const Clock::time_point released = Clock::now();
      for (const ResourcePtr& plain : top.heldPlain)
        world_.holdLogs.at(plain->name).add(top.owner->name, top.got, released);
      top.target->resource->release(top.owner);
      expectHoldsNothing(top.owner, *top.target, "after its release");
    }
    stack_.pop_back();
  }

  // A behaviour lets go of one of the resources it holds and keeps the rest:
  // its release flag is then set while it still holds them.
  void releaseOne() {
    Frame& top = stack_.back();
    const std::size_t i = static_cast<std::size_t>(pick(top.heldPlain.size()));
    const ResourcePtr plain = top.heldPlain[i];
    top.heldPlain.erase(top.heldPlain.begin() + static_cast<std::ptrdiff_t>(i));
    world_.holdLogs.at(plain->name).add(top.owner->name, top.got, Clock::now());
    plain->release(top.owner);
    if (plain->currentOwner.load()->name == top.owner->name)
      world_.fail(top.owner->name + " still holds " + plain->name + " after its release");
    std::this_thread::sleep_for(std::chrono::milliseconds(pick(250)));  // works with the rest
  }

  void toggleState() {
    const StatePtr& state = world_.states[pick(world_.states.size())];
    ++world_.toggles;
    const int dice = pick(10);
    if (dice < 5) return state->setState(true);
    if (dice < 8) return state->setState(false);
    try {
      state->releaseState();
    } catch (const ZU::ZUError& error) {  // a strong holder that did not let go at once
      if (error.getDescription() != "resource wait has timeouted on " + state->name)
        world_.fail("releaseState of " + state->name + ": " + error.toString());
    }
  }

  void report() {
    const ResourcePtr& resource = world_.targets[pick(world_.targets.size())].resource;
    const std::string line = resource->httpGet(0);
    if (line.find(resource->name) == std::string::npos || line.size() < 6 ||
        line.compare(line.size() - 6, 6, "<br />") != 0)
      world_.fail("bad status line: " + line);
    resource->ownersGet();
  }

  World& world_;
  const std::string rootName_;    // fixed width: no family name extends another
  const std::string moduleName_;
  std::mt19937 rng_;
  boost::shared_ptr<ZU::ZUModule> module_;
  std::vector<Frame> stack_;
};

// Aborts the program when no operation completed for 10 s: a deadlock must
// fail the suite, not stall it.
void watch(World& world) {
  while (!world.stopping) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (msSince(world.start) - world.lastProgressMs > 10000) {
      std::fprintf(stderr, "stress: no operation completed for 10 s (seed %u): deadlock?\n",
                   world.seed);
      std::abort();
    }
  }
}

TEST(Stress, ContendedTreeKeepsItsInvariants) {
  const int seconds = envInt("ZU_STRESS_SECONDS", 20);
  const int threads = std::min(32, std::max(8, envInt("ZU_STRESS_THREADS", 16)));
  const unsigned seed = static_cast<unsigned>(
      envInt("ZU_STRESS_SEED", static_cast<int>(std::chrono::system_clock::now()
                                                     .time_since_epoch()
                                                     .count() % 1000000007)));
  std::printf("stress: replay with ZU_STRESS_SEED=%u ZU_STRESS_SECONDS=%d ZU_STRESS_THREADS=%d\n",
              seed, seconds, threads);
  std::fflush(stdout);
  RecordProperty("seed", static_cast<int>(seed));

  World world(seed);
  {
    std::vector<std::unique_ptr<Family>> families;
    for (int i = 0; i < threads; ++i) families.push_back(std::make_unique<Family>(world, i));
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(seconds);
    std::thread watchdog(watch, std::ref(world));
    std::vector<std::thread> running;
    for (auto& family : families)
      running.emplace_back([&family, deadline] { family->run(deadline); });
    for (std::thread& thread : running) thread.join();
    world.stopping = true;
    watchdog.join();
  }  // the modules go with their families

  for (const std::string& failure : world.failures) ADD_FAILURE() << failure;
  for (const auto& log : world.holdLogs)
    for (const std::string& overlap : log.second.overlaps())
      ADD_FAILURE() << log.first << ": " << overlap;
  for (const ResourcePtr& plain : world.plains)
    EXPECT_TRUE(plain->isResourceFree()) << plain->httpGet(0);
  for (const StatePtr& state : world.states) {
    state->setState(true);
    EXPECT_TRUE(zutest::holderNames(*state).empty()) << state->httpGet(0);
    EXPECT_EQ(state->stateOwner->copyWaiters().size(), 0u) << state->httpGet(0);
  }
  for (const auto& group : world.groups) EXPECT_TRUE(group->isResourceFree()) << group->httpGet(0);
  EXPECT_GT(world.granted, 0);
  std::printf("stress: seed %u: %d waits, %d granted, %d partly (no-wait list), %d hand-downs, "
              "%d timeouts, %d box stops, %d state switches, %d notifications\n",
              seed, world.waits.load(), world.granted.load(), world.partial.load(),
              world.handDowns.load(), world.timeouts.load(), world.boxStops.load(),
              world.toggles.load(), world.notifications.load());
}

}  // namespace
