#include "simulation.h"

#include <algorithm>
#include <stdexcept>
#include <thread>

#include <boost/make_shared.hpp>

#include <zuhost/zumutex.h>

#include <zuresource/zuexplain.h>
#include <zuresource/zuresourcelist.h>
#include <zuresource/zuresourcestate.h>

namespace zusim {

namespace {

const char kTimeoutError[] = "resource wait has timeouted on ";
const char kStopError[] = "box stop while waiting";
const char kFree[] = "emptyOwner";
// Often enough to see a wait begin long before its first 200 ms poll.
const std::chrono::milliseconds kWatchPeriod(5);
// Well under a polling period, so that a stale wait is seen within about one
// period of turning stale.
const std::chrono::milliseconds kStaleCheckPeriod(100);
// Changes this close together are taken as one step of the library.
const std::chrono::milliseconds kSameMoment(50);

std::string join(const std::vector<std::string>& names) {
  std::string out;
  for (std::size_t i = 0; i < names.size(); ++i) out += (i ? ", " : "") + names[i];
  return out;
}

bool contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

/// `names` sorted, each once.
std::vector<std::string> distinct(std::vector<std::string> names) {
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

std::vector<std::string> moduleNames(const ZU::ZUValue& waiters) {
  std::vector<std::string> out;
  for (std::size_t i = 0; i < waiters.size(); ++i) out.push_back(waiters[i].asString());
  return out;
}

}  // namespace

bool RunRecord::allHeld() const {
  return std::all_of(results.begin(), results.end(), [](const ExpectResult& r) { return r.held; });
}

/// One owner of the scenario and what the run knows about it.
struct Simulation::Owner {
  const OwnerEntry& entry;
  /// Immutable: the library's owner.
  boost::shared_ptr<ZU::ZUOwner> owner;
  /// Immutable: whether a resource may be handed down to this owner (another
  /// owner's or a state resource's name is a proper prefix of its name).
  bool mayBeHandedDown = false;
  /// Held around the library calls made for this owner when it may be handed
  /// resources down: a hand-down records the giver in the owner's parent-owner
  /// map, which a release for it reads, and the library leaves it to the
  /// caller to keep one owner's calls apart. A module's release for such an
  /// owner therefore waits while the owner waits.
  std::mutex calls;

  // Guarded by Simulation::mutex_.
  std::string pending;                     // the resource it waits for now
  std::vector<std::string> pendingNoWait;  // and the names it will not wait for
  std::vector<std::string> acquired;       // what it asked for and holds, oldest first
  std::vector<Outcome> outcomes;

  Owner(const OwnerEntry& s, boost::shared_ptr<ZU::ZUOwner> o) : entry(s), owner(std::move(o)) {}

  std::unique_lock<std::mutex> serialise() {
    return mayBeHandedDown ? std::unique_lock<std::mutex>(calls) : std::unique_lock<std::mutex>();
  }
};

/// One host module of the scenario.
struct Simulation::Module {
  const ModuleEntry& entry;
  boost::shared_ptr<ZU::ZUModule> module;  // immutable until the destructor
  std::vector<std::string> notified;       // guarded by Simulation::mutex_

  explicit Module(const ModuleEntry& s)
      : entry(s), module(boost::make_shared<ZU::ZUModule>(s.name)) {}
};

Simulation::Simulation(const Scenario& scenario, EventLog& log)
    : scenario_(scenario), log_(log), broker_(boost::make_shared<ZU::ZUBroker>()) {
  for (const ResourceEntry& r : scenario.resources) {
    boost::shared_ptr<ZU::ZUResource> made;
    if (r.kind == ResourceKind::Plain) made = boost::make_shared<ZU::ZUResource>(r.name, nullptr);
    if (r.kind == ResourceKind::State)
      made = boost::make_shared<ZU::ZUResourceState>(r.name, nullptr);
    if (r.kind == ResourceKind::Group)
      made = boost::make_shared<ZU::ZUResourceList>(r.name, nullptr);
    resources_[r.name] = made;
  }
  for (const ResourceEntry& r : scenario.resources) {
    for (const std::string& m : r.members) resources_.at(r.name)->addResource(resources_.at(m));
    if (r.activated) stateResource(r.name)->setState(true);
  }
  for (const std::string& r : scenario.roots()) roots_.push_back(resources_.at(r));
  for (const ModuleEntry& m : scenario.modules) {
    modules_.push_back(std::make_unique<Module>(m));
    Module& module = *modules_.back();
    module.module->bindMethod<std::string>(
        "__onResource__", [this, &module](const std::string& name) { onResource(module, name); });
    broker_->addModule(module.module);
  }
  std::vector<std::string> givers;
  for (const OwnerEntry& o : scenario.owners) givers.push_back(o.name);
  for (const ResourceEntry& r : scenario.resources)
    if (r.kind == ResourceKind::State) givers.push_back(r.name);
  for (const OwnerEntry& o : scenario.owners) {
    owners_.push_back(
        std::make_unique<Owner>(o, ZU::ZUResource::createOwner(0, o.name, o.module, nullptr)));
    owners_.back()->owner->setParentBroker(broker_);
    owners_.back()->mayBeHandedDown =
        std::any_of(givers.begin(), givers.end(), [&](const std::string& g) {
          return g.size() < o.name.size() && o.name.compare(0, g.size(), g) == 0;
        });
  }
}

Simulation::~Simulation() {
  // The modules go first: their methods refer to this simulation.
  for (auto& m : modules_) {
    broker_->removeModule(m->entry.name);
    m->module.reset();
  }
}

// --- The run. -----------------------------------------------------------------

RunRecord Simulation::run() {
  std::map<std::string, std::vector<const ActionEntry*>> byOwner;
  std::vector<const ActionEntry*> managerActions;
  for (const ActionEntry& a : scenario_.actions) {
    bool ownThread = a.kind == ActionKind::WaitFor || a.kind == ActionKind::Release ||
                     a.kind == ActionKind::SwitchOwner;
    (ownThread ? byOwner[a.owner] : managerActions).push_back(&a);
  }
  RunRecord record;
  last_ = sample();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    observe(last_, 0);
    running_ = static_cast<int>(byOwner.size());
  }
  watching_ = true;
  std::thread watcher(&Simulation::watch, this);
  std::thread checker(&Simulation::checkerThread, this, std::ref(record.results));
  std::thread manager(&Simulation::managerThread, this, managerActions);
  std::vector<std::thread> threads;
  for (const auto& entry : byOwner)
    threads.emplace_back(&Simulation::ownerThread, this, std::ref(ownerNamed(entry.first)),
                         entry.second);
  // Time 0 is when every thread is ready: making threads can take long.
  log_.restart();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    started_ = true;
  }
  go_.notify_all();

  // Owners still waiting when the scenario stops are stopped by the manager.
  std::vector<Owner*> stuck;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!ownersDone_.wait_until(lock, log_.at(scenario_.stopAtMs),
                                [this] { return running_ == 0; }))
      for (auto& o : owners_)
        if (!o->pending.empty()) stuck.push_back(o.get());
  }
  for (Owner* o : stuck) stopWaiting(*o, "the scenario stops");
  for (std::thread& t : threads) t.join();
  manager.join();
  checker.join();
  for (auto& m : modules_) m->module->waitIdle();
  watching_ = false;
  watcher.join();

  record.endMs = log_.now();
  Sample last = sample();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    observe(last, record.endMs);
    for (std::vector<Span>* spans : {&holdings_, &waits_, &activations_})
      for (Span& s : *spans)
        if (s.toMs < 0) s.toMs = record.endMs;
    record.holdings = holdings_;
    record.waits = waits_;
    record.activations = activations_;
  }
  for (const ExpectEntry& x : scenario_.expectations)
    if (x.atMs < 0) record.results.push_back(check(x, *this));
  record.finalStatus = statusLines();
  return record;
}

void Simulation::awaitStart() {
  std::unique_lock<std::mutex> lock(mutex_);
  go_.wait(lock, [this] { return started_; });
}

void Simulation::ownerThread(Owner& o, const std::vector<const ActionEntry*>& actions) {
  awaitStart();
  for (const ActionEntry* a : actions) {
    std::this_thread::sleep_until(log_.at(a->atMs));
    if (a->kind == ActionKind::WaitFor) waitFor(o, *a);
    if (a->kind == ActionKind::Release) release(o, a->resource, "");
    if (a->kind == ActionKind::SwitchOwner) switchOwner(o, *a);
  }
  std::lock_guard<std::mutex> lock(mutex_);
  --running_;
  ownersDone_.notify_all();
}

void Simulation::managerThread(const std::vector<const ActionEntry*>& actions) {
  awaitStart();
  for (const ActionEntry* a : actions) {
    std::this_thread::sleep_until(log_.at(a->atMs));
    if (a->kind == ActionKind::Stop) {
      log_.add(EventKind::Manager, a->owner, a->resource,
               "the manager stops " + a->owner + " on " + a->resource);
      release(ownerNamed(a->owner), a->resource, " (stopped by the manager)");
    } else {
      setState(*a);
    }
  }
}

void Simulation::checkerThread(std::vector<ExpectResult>& results) {
  awaitStart();
  std::vector<const ExpectEntry*> timed;
  for (const ExpectEntry& x : scenario_.expectations)
    if (x.atMs >= 0) timed.push_back(&x);
  std::stable_sort(timed.begin(), timed.end(),
                   [](const ExpectEntry* a, const ExpectEntry* b) { return a->atMs < b->atMs; });
  for (const ExpectEntry* x : timed) {
    std::this_thread::sleep_until(log_.at(x->atMs));
    results.push_back(check(*x, *this));
  }
}

void Simulation::waitFor(Owner& o, const ActionEntry& a) {
  const std::string& who = o.entry.name;
  std::string limit =
      a.timeout < 0 ? "no time limit" : "time limit " + std::to_string(a.timeout) + " s";
  if (!a.noWait.empty()) limit += ", no wait for " + join(a.noWait);
  log_.add(EventKind::Request, who, a.resource,
           who + " requests " + a.resource + " (" + limit + ")");
  std::map<std::string, std::string> before = leafHolders(a.resource);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    o.pending = a.resource;
    o.pendingNoWait = a.noWait;
  }
  Outcome out;
  out.resource = a.resource;
  std::unique_lock<std::mutex> calls = o.serialise();
  try {
    out.notObtained = resource(a.resource)->waitFor(o.owner, a.label, a.timeout, a.noWait);
    out.kind = out.notObtained.empty() ? "granted" : "not obtained";
    // A hand-down is the one change of holder that records the giver as the
    // new holder's parent owner for that resource.
    for (const auto& b : before) {
      if (b.second == who || b.second == kFree || holderOf(b.first) != who) continue;
      boost::shared_ptr<ZU::ZUOwner> parent = o.owner->getParentOwner(b.first);
      if (parent && parent->name == b.second)
        log_.add(EventKind::HandedDown, who, b.first,
                 b.first + " is handed down from " + b.second + " to " + who);
    }
  } catch (const ZU::ZUError& e) {
    out.error = e.getDescription();
    out.kind = out.error.compare(0, sizeof kTimeoutError - 1, kTimeoutError) == 0 ? "timed out"
               : out.error == kStopError                                          ? "stopped"
                                                                                  : "failed";
  }
  if (calls) calls.unlock();
  finish(o, out);
}

void Simulation::finish(Owner& o, const Outcome& result) {
  const std::string& who = o.entry.name;
  std::vector<std::string> leaves = scenario_.leavesOf(result.resource);
  std::vector<std::string> heldNow;
  for (const std::string& l : leaves)
    if (holds(l, who)) heldNow.push_back(l);
  std::lock_guard<std::mutex> lock(mutex_);
  Outcome out = result;
  out.ms = log_.now();
  o.pending.clear();
  o.outcomes.push_back(out);
  std::string lane = result.resource;
  for (Span& w : waits_) {
    if (w.owner != who || w.toMs >= 0) continue;
    w.toMs = out.ms;
    lane = w.resource;
  }
  if (out.kind == "granted" || !heldNow.empty()) o.acquired.push_back(result.resource);
  if (out.kind == "granted") {
    log_.add(EventKind::Granted, who, result.resource, who + " is granted " + result.resource);
  } else if (out.kind == "not obtained") {
    log_.add(EventKind::NotObtained, who, out.notObtained.front(),
             who + " gives up on " + join(out.notObtained) + " (busy, on its no-wait list)" +
                 (heldNow.empty() ? "" : "; it holds " + join(heldNow)));
  } else {
    if (out.kind == "timed out") lane = out.error.substr(sizeof kTimeoutError - 1);
    EventKind kind = out.kind == "timed out" ? EventKind::TimedOut
                     : out.kind == "stopped" ? EventKind::Stopped
                                             : EventKind::Failed;
    log_.add(kind, who, lane,
             who + "'s wait for " + result.resource + " fails: \"" + out.error + "\"");
    // What the owner held in the group until the failure, and no longer holds,
    // was given back by the group on the way out. A holding that ended well
    // before the failure was let go for another reason.
    std::vector<std::string> given;
    for (const Span& h : holdings_) {
      bool untilTheFailure = h.toMs < 0 || h.toMs >= out.ms - kSameMoment.count();
      if (h.owner == who && untilTheFailure && contains(leaves, h.resource) &&
          !contains(heldNow, h.resource) && !contains(given, h.resource) && h.resource != lane)
        given.push_back(h.resource);
    }
    for (const std::string& g : given)
      log_.add(EventKind::GaveBack, who, g,
               who + " gives back " + g + ": its wait for " + result.resource + " failed");
  }
}

void Simulation::release(Owner& o, const std::string& name, const std::string& why) {
  const std::string& who = o.entry.name;
  std::vector<std::string> leaves = scenario_.leavesOf(name);
  std::vector<std::string> heldBefore;
  for (const std::string& l : leaves)
    if (holds(l, who)) heldBefore.push_back(l);
  std::unique_lock<std::mutex> calls = o.serialise();
  resource(name)->release(o.owner);
  if (calls) calls.unlock();
  std::vector<std::string> released;
  for (const std::string& l : heldBefore) {
    if (stateResource(l) || holderOf(l) == kFree) {
      released.push_back(l);
    } else if (holderOf(l) != who) {
      log_.add(EventKind::HandedBack, who, l,
               l + " is handed back from " + who + " to " + holderOf(l) + why);
    }
  }
  if (!released.empty())
    log_.add(
        EventKind::Released, who, name,
        who + " releases " +
            (released.size() == 1 && released[0] == name ? name
                                                         : name + " (" + join(released) + ")") +
            why);
  if (heldBefore.empty())
    log_.add(EventKind::Released, who, name,
             who + " gives up " + name + ", which it does not hold" + why);
  std::lock_guard<std::mutex> lock(mutex_);
  o.acquired.erase(std::remove(o.acquired.begin(), o.acquired.end(), name), o.acquired.end());
}

void Simulation::switchOwner(Owner& o, const ActionEntry& a) {
  std::map<std::string, std::string> before = leafHolders(a.resource);
  std::string was;
  for (const auto& b : before)
    was += (was.empty() ? "" : ", ") + (before.size() == 1 ? b.second : b.first + ": " + b.second);
  std::unique_lock<std::mutex> calls = o.serialise();
  resource(a.resource)->switchOwner(o.owner, a.label, a.timeout);
  if (calls) calls.unlock();
  log_.add(EventKind::Switched, o.entry.name, a.resource,
           a.resource + " is switched over to " + o.entry.name +
               (was.empty() ? "" : " (was " + was + ")"));
  std::lock_guard<std::mutex> lock(mutex_);
  o.acquired.push_back(a.resource);
}

void Simulation::setState(const ActionEntry& a) {
  ZU::ZUResourceState* state = stateResource(a.resource);
  if (a.kind == ActionKind::SetState) {
    log_.add(
        EventKind::State, "", a.resource,
        a.resource + (a.activated ? " is activated" : " is deactivated; its holders are told"));
    state->setState(a.activated);
    return;
  }
  log_.add(EventKind::State, "", a.resource,
           a.resource + " is deactivated by releaseState; its holders are told");
  try {
    state->releaseState();
  } catch (const ZU::ZUError& e) {
    log_.add(EventKind::Failed, "", a.resource,
             "releaseState on " + a.resource + " ends with \"" + e.getDescription() + "\"");
  }
}

void Simulation::onResource(Module& m, const std::string& name) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    m.notified.push_back(name);
  }
  log_.add(EventKind::Notified, "", name,
           m.entry.name + " is told \"__onResource__\" for " + name +
               (m.entry.releases ? " and lets go in " + std::to_string(m.entry.delayMs) + " ms"
                                 : " and ignores it"));
  if (!m.entry.releases) return;
  std::this_thread::sleep_for(std::chrono::milliseconds(m.entry.delayMs));
  for (auto& o : owners_) {
    if (o->entry.module != m.entry.name || !holds(name, o->entry.name)) continue;
    // The owner gives up what it asked for that holds the wanted resource.
    std::string what = name;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      for (const std::string& a : o->acquired)
        if (contains(scenario_.leavesOf(a), name)) what = a;
    }
    release(*o, what, " after \"__onResource__\"");
  }
}

void Simulation::stopWaiting(Owner& o, const std::string& why) {
  std::string pending;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    pending = o.pending;
  }
  if (pending.empty()) return;
  log_.add(EventKind::Manager, o.entry.name, pending,
           why + ": the manager stops " + o.entry.name + ", still waiting for " + pending);
  release(o, pending, " (stopped by the manager)");
}

// --- Observation. ---------------------------------------------------------------

void Simulation::watch() {
  awaitStart();
  EventLog::Clock::time_point nextStaleCheck = EventLog::Clock::now() + kStaleCheckPeriod;
  while (watching_) {
    std::this_thread::sleep_for(kWatchPeriod);
    Sample now = sample();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      observe(now, log_.now());
    }
    findDeadlocks();
    if (EventLog::Clock::now() >= nextStaleCheck) {
      findStaleWaits();
      nextStaleCheck = EventLog::Clock::now() + kStaleCheckPeriod;
    }
  }
}

void Simulation::findDeadlocks() {
  for (const ZU::ZUWaitCycle& cycle : ZU::ZUWaitRegistry::findCycles(ourWaits())) {
    std::vector<std::uint64_t> ids;
    std::vector<std::string> owners;
    Finding found;
    for (const ZU::ZUWait& w : cycle.edges) {
      ids.push_back(w.id);
      owners.push_back(w.waiter);
      found.resources.push_back(w.resource);
    }
    if (!cyclesSeen_.insert(ids).second) continue;
    found.owners = distinct(owners);
    found.text = describe(cycle);
    std::lock_guard<std::mutex> lock(mutex_);
    found.ms = log_.now();
    deadlocks_.push_back(found);
    log_.add(EventKind::Deadlock, cycle.edges.front().waiter, cycle.edges.front().resource,
             found.text);
  }
}

void Simulation::findStaleWaits() {
  std::vector<ZU::ZUStaleWait> stale = staleChecker_.check(roots_);
  std::lock_guard<std::mutex> lock(mutex_);
  staleNow_.clear();
  for (const ZU::ZUStaleWait& s : stale) {
    if (!isOurs(s.wait)) continue;
    staleNow_.push_back(s.toString());
    if (!s.firstReport) continue;
    staleWaits_.push_back(
        {log_.now(), distinct({s.wait.waiter, s.wait.holder}), {s.wait.resource}, s.toString()});
    log_.add(EventKind::StaleWait, s.wait.waiter, s.wait.resource, s.toString());
  }
}

bool Simulation::isOurs(const ZU::ZUWait& wait) const {
  boost::shared_ptr<ZU::ZUOwner> waiter = wait.waiterOwner.lock();
  return std::any_of(owners_.begin(), owners_.end(),
                     [&](const std::unique_ptr<Owner>& o) { return o->owner == waiter; });
}

std::vector<ZU::ZUWait> Simulation::ourWaits() const {
  std::vector<ZU::ZUWait> waits = ZU::ZUWaitRegistry::snapshot();
  waits.erase(std::remove_if(waits.begin(), waits.end(),
                             [this](const ZU::ZUWait& w) { return !isOurs(w); }),
              waits.end());
  return waits;
}

std::string Simulation::describe(const ZU::ZUWaitCycle& cycle) const {
  std::string text = "deadlock: ";
  EventLog::Clock::time_point formed;
  for (std::size_t i = 0; i < cycle.edges.size(); ++i) {
    const ZU::ZUWait& w = cycle.edges[i];
    text += (i ? ", " : "") + w.waiter + " -> " + w.holder + " (" + w.resource + ")";
    formed = std::max(formed, w.since);
  }
  return text + "; formed at " + std::to_string(log_.msOf(formed)) + " ms";
}

Simulation::Sample Simulation::sample() {
  Sample s = last_;  // a state resource busy telling its holders keeps its last holders
  s.waiters.clear();
  for (const ResourceEntry& r : scenario_.resources) {
    if (r.kind == ResourceKind::Plain) s.holder[r.name] = holderOf(r.name);
    if (r.kind != ResourceKind::State) continue;
    ZU::ZUResourceState* state = stateResource(r.name);
    s.activated[r.name] = state->state;
    bool busy = false;
    ZU::ZUCriticalTrueIfLocked lock(state->holdersMutex, busy);
    if (!busy) {
      s.holders[r.name].clear();
      for (const auto& h : state->holders) s.holders[r.name].push_back(h->name);
    }
    s.waiters.push_back({r.name, true, moduleNames(state->stateOwner->copyWaiters())});
  }
  for (const auto& o : owners_)
    s.waiters.push_back({o->entry.name, false, moduleNames(o->owner->copyWaiters())});
  return s;
}

void Simulation::close(std::vector<Span>& spans, const std::string& resource,
                       const std::string& owner, long ms) {
  for (Span& s : spans)
    if (s.resource == resource && s.owner == owner && s.toMs < 0) s.toMs = ms;
}

void Simulation::observe(const Sample& now, long ms) {
  for (const auto& h : now.holder) {
    std::string was = last_.holder.count(h.first) ? last_.holder.at(h.first) : kFree;
    if (was == h.second) continue;
    close(holdings_, h.first, was, ms);
    if (h.second == kFree) continue;
    holdings_.push_back({h.first, h.second, ms, -1, ""});
    // A group's member taken on the way through the group's walk.
    for (const auto& o : owners_)
      if (o->entry.name == h.second && !o->pending.empty() && o->pending != h.first &&
          contains(scenario_.leavesOf(o->pending), h.first))
        log_.add(EventKind::Granted, h.second, h.first,
                 h.second + " takes " + h.first + ", a member of " + o->pending);
  }
  for (const auto& h : now.holders) {
    std::vector<std::string> was =
        last_.holders.count(h.first) ? last_.holders.at(h.first) : std::vector<std::string>();
    for (const std::string& name : was)
      if (!contains(h.second, name)) close(holdings_, h.first, name, ms);
    for (const std::string& name : h.second)
      if (!contains(was, name)) holdings_.push_back({h.first, name, ms, -1, ""});
  }
  for (const auto& a : now.activated) {
    bool was = last_.activated.count(a.first) && last_.activated.at(a.first);
    if (a.second && (!was || activations_.empty()))
      activations_.push_back({a.first, "", ms, -1, ""});
    if (!a.second && was) close(activations_, a.first, "", ms);
  }
  for (std::size_t i = 0; i < now.waiters.size(); ++i) {
    const Sample::Waiters& on = now.waiters[i];
    std::vector<std::string> was =
        i < last_.waiters.size() ? last_.waiters[i].modules : std::vector<std::string>();
    std::map<std::string, int> change;
    for (const std::string& m : on.modules) ++change[m];
    for (const std::string& m : was) --change[m];
    for (const auto& c : change) {
      for (int k = 0; k < c.second; ++k) noticeWaiter(now, on, c.first, ms);
      for (int k = 0; k > c.second; --k) endWaiter(on.holder, c.first, ms);
    }
  }
  last_ = now;
}

void Simulation::noticeWaiter(const Sample& now, const Sample::Waiters& on,
                              const std::string& module, long ms) {
  // The waiter is an owner of that module whose request is running and takes
  // in a resource that the holder holds; a group is walked in member order,
  // so it is the first such member that the request does not skip. An owner
  // never waits on itself.
  for (const auto& o : owners_) {
    if (o->entry.module != module || o->pending.empty() || o->entry.name == on.holder) continue;
    for (const std::string& l : scenario_.leavesOf(o->pending)) {
      if (contains(o->pendingNoWait, l)) continue;
      // An activated state resource is granted at once, whoever else holds
      // it: an owner waits on another owner for a plain resource only.
      bool heldByIt = now.holder.count(l) && now.holder.at(l) == on.holder;
      if (on.activation ? l != on.holder : !heldByIt) continue;
      waits_.push_back({l, o->entry.name, ms, -1, on.holder});
      log_.add(EventKind::Waiting, o->entry.name, l,
               o->entry.name + (on.activation ? " waits for " + l + " to be activated"
                                              : " waits for " + l + ", held by " + on.holder));
      return;
    }
  }
  // A deactivation asks the holders of the state resource to let go.
  if (!on.activation && scenario_.findResource(module)) {
    waits_.push_back({module, "", ms, -1, on.holder});
    log_.add(EventKind::Waiting, "", module,
             "the deactivation of " + module + " waits for " + on.holder + " to let go");
  }
}

void Simulation::endWaiter(const std::string& holder, const std::string& module, long ms) {
  for (Span& w : waits_) {
    if (w.holder != holder || w.toMs >= 0) continue;
    const OwnerEntry* o = scenario_.findOwner(w.owner);
    if (o ? o->module == module : w.resource == module) {
      w.toMs = ms;
      return;
    }
  }
}

std::map<std::string, std::string> Simulation::leafHolders(const std::string& name) {
  std::map<std::string, std::string> out;
  for (const std::string& l : scenario_.leavesOf(name))
    if (!stateResource(l)) out[l] = holderOf(l);
  return out;
}

bool Simulation::holds(const std::string& leaf, const std::string& owner) {
  return stateResource(leaf) ? contains(holdersOf(leaf), owner) : holderOf(leaf) == owner;
}

// --- Queries. --------------------------------------------------------------------

std::vector<std::string> Simulation::statusLines() {
  std::vector<std::string> lines;
  for (const std::string& r : scenario_.roots()) lines.push_back(resource(r)->httpGet(0));
  return lines;
}

std::string Simulation::holderOf(const std::string& name) {
  return resource(name)->currentOwner.load()->name;
}

std::vector<std::string> Simulation::holdersOf(const std::string& name) {
  ZU::ZUResourceState* state = stateResource(name);
  std::vector<std::string> out;
  ZU::ZUCriticalSection lock(state->holdersMutex);
  for (const auto& h : state->holders) out.push_back(h->name);
  return out;
}

bool Simulation::isActivated(const std::string& name) { return stateResource(name)->state; }

std::vector<Outcome> Simulation::outcomesOf(const std::string& owner) {
  std::lock_guard<std::mutex> lock(mutex_);
  return ownerNamed(owner).outcomes;
}

std::vector<std::string> Simulation::notifiedOf(const std::string& module) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& m : modules_)
    if (m->entry.name == module) return m->notified;
  return {};
}

std::vector<Finding> Simulation::deadlocks() {
  std::lock_guard<std::mutex> lock(mutex_);
  return deadlocks_;
}

std::vector<Finding> Simulation::staleWaits() {
  std::lock_guard<std::mutex> lock(mutex_);
  return staleWaits_;
}

Diagnostics Simulation::diagnostics() {
  Diagnostics d;
  std::vector<ZU::ZUWait> waits = ourWaits();
  for (const ZU::ZUWait& w : waits) d.waits.push_back(w.toString());
  for (const ZU::ZUWaitCycle& c : ZU::ZUWaitRegistry::findCycles(waits))
    d.deadlocks.push_back(describe(c));
  std::lock_guard<std::mutex> lock(mutex_);
  d.staleWaits = staleNow_;
  return d;
}

std::string Simulation::explain(const std::string& owner, const std::string& resourceName) {
  if (!scenario_.findOwner(owner)) throw std::invalid_argument("unknown owner \"" + owner + "\"");
  if (!resources_.count(resourceName))
    throw std::invalid_argument("unknown resource \"" + resourceName + "\"");
  return ZU::explain(resource(resourceName), ownerNamed(owner).owner).toString();
}

Simulation::Owner& Simulation::ownerNamed(const std::string& name) {
  for (auto& o : owners_)
    if (o->entry.name == name) return *o;
  throw std::logic_error("no owner " + name);
}

boost::shared_ptr<ZU::ZUResource> Simulation::resource(const std::string& name) const {
  return resources_.at(name);
}

ZU::ZUResourceState* Simulation::stateResource(const std::string& name) const {
  return dynamic_cast<ZU::ZUResourceState*>(resources_.at(name).get());
}

}  // namespace zusim
