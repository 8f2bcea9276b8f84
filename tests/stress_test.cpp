// Randomized, seeded stress of a contended resource tree, one thread per owner
// family. Environment: ZU_STRESS_SECONDS (20), ZU_STRESS_SEED (printed),
// ZU_STRESS_THREADS (8 to 32, 16).

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuhost/zubroker.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuresourcelist.h>
#include <zuresource/zuresourcestate.h>
#include <zuresource/zuwaitregistry.h>

#include "support/resourcehelpers.h"
#include "support/threads.h"

namespace {

using Clock = std::chrono::steady_clock;
using Names = std::vector<std::string>;
using ResourcePtr = boost::shared_ptr<ZU::ZUResource>;
using StatePtr = boost::shared_ptr<ZU::ZUResourceState>;
using OwnerPtr = boost::shared_ptr<ZU::ZUOwner>;
using zutest::holderNames;

int envInt(const char* name, int fallback) {
  const char* text = std::getenv(name);
  return text && *text ? std::atoi(text) : fallback;
}
bool contains(const Names& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// A resource that an owner may ask for, with the leaves it stands for.
struct Target {
  explicit Target(const ResourcePtr& resource) : resource(resource) { collect(resource); }

  ResourcePtr resource;
  std::vector<ResourcePtr> leaves;
  std::set<std::string> leafNames;

  void collect(const ResourcePtr& node) {
    if (auto group = boost::dynamic_pointer_cast<ZU::ZUResourceList>(node)) {
      for (const ResourcePtr& member : group->getResourceList()) collect(member);
      return;
    }
    leaves.push_back(node);
    leafNames.insert(node->name);
  }
};

// Whether `owner` holds `leaf`: is its current owner, or for a state, one of its holders.
bool holds(const ResourcePtr& leaf, const std::string& owner) {
  if (auto state = boost::dynamic_pointer_cast<ZU::ZUResourceState>(leaf))
    return contains(holderNames(*state), owner);
  return leaf->currentOwner.load()->name == owner;
}

// When an owner held a plain resource: from `got` (after its wait returned) to
// `released` (before its release was called).
struct Hold {
  std::string owner;
  Clock::time_point got, released;
};

// Everything the families share. Thread safe: the containers are filled before
// the threads start and never change (their resources are thread safe), the
// counters are atomic, `holds` and `failures` are guarded by mutex. Every holder is of module "M",
// whose notifications do nothing.
struct World {
  explicit World(unsigned seed) : seed(seed) {
    for (int i = 0; i < 12; ++i) plains.push_back(zutest::makePlain("R" + std::to_string(i)));
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
    groups = {zutest::makeGroup("G0", {R[0], R[1], S[0]}),
              g1,
              g2,
              zutest::makeGroup("G3", {R[5], g2, R[6]}),
              zutest::makeGroup("G4", {R[7], R[1], S[2]}),
              zutest::makeGroup("G5", {R[6], R[5]}),
              zutest::makeGroup("G6", {R[8], R[9], R[10]}),
              zutest::makeGroup("G7", {R[11], R[9]})};
    for (const auto& resource : plains) targets.emplace_back(resource);
    for (const auto& resource : states) targets.emplace_back(resource);
    for (const auto& resource : groups) targets.emplace_back(resource);
    module->bindMethod<std::string>("__onResource__", [](const std::string&) {});
    broker->addModule(module);
  }
  ~World() { broker->removeModule("M"); }

  void fail(const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    if (failures.size() < 20) failures.push_back(what);
  }
  void held(const ResourcePtr& plain, const std::string& owner, Clock::time_point got) {
    std::lock_guard<std::mutex> lock(mutex);
    holds[plain->name].push_back(Hold{owner, got, Clock::now()});
  }
  const unsigned seed;
  boost::shared_ptr<ZU::ZUBroker> broker = boost::make_shared<ZU::ZUBroker>();
  boost::shared_ptr<ZU::ZUModule> module = boost::make_shared<ZU::ZUModule>("M");
  std::vector<ResourcePtr> plains;
  std::vector<StatePtr> states;
  std::vector<boost::shared_ptr<ZU::ZUResourceList>> groups;
  std::vector<Target> targets;  // plains, then states, then groups
  std::atomic<int> granted{0};
  std::mutex mutex;
  std::map<std::string, std::vector<Hold>> holds;  // by resource; guarded by mutex
  Names failures;                                  // guarded by mutex
};

// One owner family, driven by one thread: a stack of owners, each the
// descendant of the one below it, the top one acting. Not shared between threads.
class Family {
 public:
  Family(World& world, int index)
      : world_(world),
        rootName_("F" + std::string(index < 10 ? "0" : "") + std::to_string(index)),
        rng_(world.seed * 7919u + static_cast<unsigned>(index)) {}

  void run(Clock::time_point deadline) {
    while (Clock::now() < deadline) {
      const int dice = pick(100);
      if (dice < 6)
        toggleState();
      else if (dice < 10)
        report();
      else if (dice < 40 && !stack_.empty() && stack_.back().heldPlain.size() > 1)
        releaseOne();
      else if (stack_.empty() || (stack_.size() < 3 && dice < 55))
        push();
      else
        pop();
    }
    while (!stack_.empty()) pop();  // descendants before their ancestors
  }

 private:
  struct Frame {
    OwnerPtr owner;
    const Target* target = nullptr;      // what it asked for
    std::vector<ResourcePtr> heldPlain;  // leaves obtained, for the hold logs
    Clock::time_point got;
  };

  int pick(std::size_t n) {
    return std::uniform_int_distribution<int>(0, static_cast<int>(n) - 1)(rng_);
  }
  const Target& anyTarget() { return world_.targets[pick(world_.targets.size())]; }
  void fail(const OwnerPtr& owner, const std::string& what) {
    world_.fail(owner->name + " " + what);
  }

  void push() {
    Frame frame;
    frame.owner = zutest::makeOwner(
        stack_.empty() ? rootName_ : stack_.back().owner->name + "." + char('a' + pick(2)), "M");
    frame.owner->setParentBroker(world_.broker);
    // Now and then a release of something the new owner does not hold: its
    // next contested wait then fails with "box stop while waiting".
    if (pick(100) < 5) anyTarget().resource->release(frame.owner);
    acquire(frame, chooseTarget());
    stack_.push_back(frame);
    if (pick(4) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(pick(30)));
  }

  // Half the time a descendant asks for what its parent holds (a hand-down),
  // otherwise half the time a group, so that owners hold several resources.
  const Target& chooseTarget() {
    if (!stack_.empty() && pick(2) == 0) {
      const Frame& parent = stack_.back();
      if (!parent.heldPlain.empty() && pick(2) == 0) {
        const ResourcePtr& leaf = parent.heldPlain[pick(parent.heldPlain.size())];
        for (const Target& target : world_.targets)
          if (target.resource == leaf) return target;
      }
      return *parent.target;
    }
    const std::size_t firstGroup = world_.plains.size() + world_.states.size();
    return pick(2) == 0 ? world_.targets[firstGroup + pick(world_.groups.size())] : anyTarget();
  }

  void acquire(Frame& frame, const Target& target) {
    const OwnerPtr& owner = frame.owner;
    const std::string what = "waiting for " + target.resource->name + ": ";
    Names noWait, result;
    if (pick(100) < 30)
      for (int i = pick(3); i >= 0; --i) noWait.push_back(anyTarget().resource->name);
    frame.target = &target;
    try {
      result = target.resource->waitFor(owner, owner->name, pick(2), noWait);
    } catch (const ZU::ZUError& error) {
      if (!documented(error, target)) fail(owner, what + "undocumented " + error.toString());
      expectHoldsNothing(owner, target, "after a failed wait");
      return;
    }
    frame.got = Clock::now();
    ++world_.granted;
    for (const std::string& name : result)
      if (!target.leafNames.count(name) || !contains(noWait, name))
        fail(owner, what + "result names " + name + ", which it may not give up");
    for (const ResourcePtr& leaf : target.leaves) {
      if (contains(result, leaf->name)) continue;
      if (!holds(leaf, owner->name)) fail(owner, what + "granted, but " + leaf->httpGet(0));
      if (!boost::dynamic_pointer_cast<ZU::ZUResourceState>(leaf)) frame.heldPlain.push_back(leaf);
    }
  }

  // The two documented errors: a timeout on one of the target's leaves, or a box stop.
  static bool documented(const ZU::ZUError& error, const Target& target) {
    const std::string& text = error.getDescription();
    const std::string prefix = ZU::contract::kWaitTimedOutPrefix;
    return error.getModule() == ZU::contract::kWaitErrorModule &&
           error.getMethod() == ZU::contract::kWaitErrorMethod &&
           (text == ZU::contract::kStopWhileWaiting ||
            (text.rfind(prefix, 0) == 0 && target.leafNames.count(text.substr(prefix.size()))));
  }

  void expectHoldsNothing(const OwnerPtr& owner, const Target& target, const char* when) {
    for (const ResourcePtr& leaf : target.leaves)
      if (holds(leaf, owner->name)) fail(owner, "still holds " + leaf->name + " " + when);
  }

  void pop() {
    const Frame& top = stack_.back();
    for (const ResourcePtr& plain : top.heldPlain) world_.held(plain, top.owner->name, top.got);
    top.target->resource->release(top.owner);
    expectHoldsNothing(top.owner, *top.target, "after its release");
    stack_.pop_back();
  }

  // Lets go of one resource and works on with the rest: the owner's release
  // flag is then set while it still holds them.
  void releaseOne() {
    Frame& top = stack_.back();
    const auto it = top.heldPlain.begin() + pick(top.heldPlain.size());
    const ResourcePtr plain = *it;
    top.heldPlain.erase(it);
    world_.held(plain, top.owner->name, top.got);
    plain->release(top.owner);
    if (plain->currentOwner.load()->name == top.owner->name)
      fail(top.owner, "still holds " + plain->name + " after its release");
    std::this_thread::sleep_for(std::chrono::milliseconds(pick(250)));
  }

  void toggleState() {
    const StatePtr& state = world_.states[pick(world_.states.size())];
    const int dice = pick(10);
    if (dice < 8) return state->setState(dice < 5);
    try {
      state->releaseState();
    } catch (const ZU::ZUError& error) {  // a strong holder that did not let go at once
      if (error.getDescription() != ZU::contract::waitTimedOut(state->name))
        world_.fail("releaseState of " + state->name + ": " + error.toString());
    }
  }

  // Status lines, holder values and the record of running waits, read while they change.
  void report() {
    const ResourcePtr& resource = anyTarget().resource;
    const std::string line = resource->httpGet(0);
    if (line.find(resource->name) == std::string::npos || line.rfind("<br />") + 6 != line.size())
      world_.fail("bad status line: " + line);
    resource->ownersGet();
    for (const ZU::ZUWait& wait : ZU::ZUWaitRegistry::snapshot())
      if (wait.waiter.empty() || wait.resource.empty()) world_.fail("torn wait record");
    ZU::ZUWaitRegistry::cycles();
  }

  World& world_;
  const std::string rootName_;  // fixed width: no family name extends another
  std::mt19937 rng_;
  std::vector<Frame> stack_;
};

TEST(Stress, ContendedTreeKeepsItsInvariants) {
  const int seconds = envInt("ZU_STRESS_SECONDS", 20);
  const int threads = std::min(32, std::max(8, envInt("ZU_STRESS_THREADS", 16)));
  const unsigned seed = static_cast<unsigned>(
      envInt("ZU_STRESS_SEED", static_cast<int>(std::random_device()() % 1000000007)));
  std::printf("stress: replay with ZU_STRESS_SEED=%u ZU_STRESS_SECONDS=%d ZU_STRESS_THREADS=%d\n",
              seed, seconds, threads);
  std::fflush(stdout);

  World world(seed);
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(seconds);
  std::deque<zutest::GuardedThread> running;
  for (int i = 0; i < threads; ++i)
    running.emplace_back([&world, i, deadline] { Family(world, i).run(deadline); });
  // Every family ends soon after the deadline: a deadlock must fail the suite,
  // not stall it.
  for (zutest::GuardedThread& thread : running) {
    const auto left = deadline + std::chrono::seconds(30) - Clock::now();
    if (!thread.joinFor(std::chrono::duration_cast<std::chrono::milliseconds>(left).count())) {
      std::fprintf(stderr, "stress: a family still runs 30 s after the end: deadlock?\n");
      std::abort();
    }
  }

  for (const std::string& failure : world.failures) ADD_FAILURE() << failure;
  // Holds that overlap are only allowed between an owner and its descendant.
  auto related = [](const std::string& a, const std::string& b) {
    return a.compare(0, b.size(), b) == 0 || b.compare(0, a.size(), a) == 0;
  };
  for (auto& [name, holds] : world.holds) {
    std::sort(holds.begin(), holds.end(),
              [](const Hold& x, const Hold& y) { return x.got < y.got; });
    for (std::size_t i = 0; i < holds.size(); ++i)
      for (std::size_t j = i + 1; j < holds.size() && holds[j].got < holds[i].released; ++j)
        if (!related(holds[i].owner, holds[j].owner))
          ADD_FAILURE() << name << ": " << holds[i].owner << " overlaps " << holds[j].owner;
  }
  for (const ResourcePtr& plain : world.plains)
    EXPECT_TRUE(plain->isResourceFree()) << plain->httpGet(0);
  for (const StatePtr& state : world.states) {
    state->setState(true);  // a group is free only when its states are activated
    EXPECT_TRUE(holderNames(*state).empty()) << state->httpGet(0);
    EXPECT_EQ(state->stateOwner->copyWaiters().size(), 0u) << state->httpGet(0);
  }
  for (const auto& group : world.groups) EXPECT_TRUE(group->isResourceFree()) << group->httpGet(0);
  EXPECT_TRUE(ZU::ZUWaitRegistry::snapshot().empty()) << "a wait that ended is still recorded";
  EXPECT_GT(world.granted, 0);
  std::printf("stress: seed %u: %d waits granted\n", seed, world.granted.load());
}

}  // namespace
