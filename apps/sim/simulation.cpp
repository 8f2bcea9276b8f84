#include "simulation.h"

#include <algorithm>
#include <stdexcept>
#include <thread>

#include <zuhost/zumutex.h>

#include <zuresource/zuexplain.h>

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

Simulation::Simulation(const Scenario& scenario, EventLog& log)
    : scenario_(scenario),
      log_(log),
      stage_(scenario, [this](std::size_t m, const std::string& r) { onResource(m, r); }),
      diagnosis_(stage_, log),
      notified_(scenario.modules.size()) {
  std::vector<std::string> givers;
  for (const OwnerEntry& o : scenario.owners) givers.push_back(o.name);
  for (const ResourceEntry& r : scenario.resources)
    if (r.kind == ResourceKind::State) givers.push_back(r.name);
  for (const Stage::Owner& o : stage_.owners()) {
    owners_.push_back(std::make_unique<Owner>(*o.entry, o.owner));
    const std::string& name = o.entry->name;
    owners_.back()->mayBeHandedDown =
        std::any_of(givers.begin(), givers.end(), [&](const std::string& g) {
          return g.size() < name.size() && name.compare(0, g.size(), g) == 0;
        });
  }
}

Simulation::~Simulation() = default;

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
  stage_.waitIdle();
  watching_ = false;
  watcher.join();

  record.endMs = log_.now();
  Sample last = sample();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    observe(last, record.endMs);
  }
  timeline_.close(record.endMs, record);
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
  std::map<std::string, std::string> before = stage_.leafHolders(a.resource);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    o.pending = a.resource;
    o.pendingNoWait = a.noWait;
  }
  Outcome out;
  out.resource = a.resource;
  std::unique_lock<std::mutex> calls = o.serialise();
  try {
    out.notObtained = stage_.resource(a.resource)->waitFor(o.owner, a.label, a.timeout, a.noWait);
    out.kind = out.notObtained.empty() ? OutcomeKind::Granted : OutcomeKind::NotObtained;
    // A hand-down is the one change of holder that records the giver as the
    // new holder's parent owner for that resource.
    for (const auto& b : before) {
      if (b.second == who || b.second == kFree || stage_.holderOf(b.first) != who) continue;
      boost::shared_ptr<ZU::ZUOwner> parent = o.owner->getParentOwner(b.first);
      if (parent && parent->name == b.second)
        log_.add(EventKind::HandedDown, who, b.first,
                 b.first + " is handed down from " + b.second + " to " + who);
    }
  } catch (const ZU::ZUError& e) {
    out.error = e.getDescription();
    out.kind = out.error.compare(0, sizeof kTimeoutError - 1, kTimeoutError) == 0
                   ? OutcomeKind::TimedOut
               : out.error == kStopError ? OutcomeKind::Stopped
                                         : OutcomeKind::Failed;
  }
  if (calls) calls.unlock();
  finish(o, out);
}

void Simulation::finish(Owner& o, const Outcome& result) {
  const std::string& who = o.entry.name;
  std::vector<std::string> leaves = scenario_.leavesOf(result.resource);
  std::vector<std::string> heldNow;
  for (const std::string& l : leaves)
    if (stage_.holds(l, who)) heldNow.push_back(l);
  std::lock_guard<std::mutex> lock(mutex_);
  Outcome out = result;
  out.ms = log_.now();
  o.pending.clear();
  o.outcomes.push_back(out);
  std::string lane = timeline_.waitsEnd(who, out.ms, result.resource);
  bool granted = out.kind == OutcomeKind::Granted;
  if (granted || !heldNow.empty()) o.acquired.push_back(result.resource);
  if (granted) {
    log_.add(EventKind::Granted, who, result.resource, who + " is granted " + result.resource);
    return;
  }
  if (out.kind == OutcomeKind::NotObtained) {
    log_.add(EventKind::NotObtained, who, out.notObtained.front(),
             who + " gives up on " + join(out.notObtained) + " (busy, on its no-wait list)" +
                 (heldNow.empty() ? "" : "; it holds " + join(heldNow)));
    return;
  }
  if (out.kind == OutcomeKind::TimedOut) lane = out.error.substr(sizeof kTimeoutError - 1);
  EventKind kind = out.kind == OutcomeKind::TimedOut  ? EventKind::TimedOut
                   : out.kind == OutcomeKind::Stopped ? EventKind::Stopped
                                                      : EventKind::Failed;
  log_.add(kind, who, lane,
           who + "'s wait for " + result.resource + " fails: \"" + out.error + "\"");
  // What the owner held in the group until the failure, and no longer holds,
  // was given back by the group on the way out. A holding that ended well
  // before the failure was let go for another reason.
  for (const std::string& g : timeline_.heldSince(who, leaves, out.ms - kSameMoment.count()))
    if (!contains(heldNow, g) && g != lane)
      log_.add(EventKind::GaveBack, who, g,
               who + " gives back " + g + ": its wait for " + result.resource + " failed");
}

void Simulation::release(Owner& o, const std::string& name, const std::string& why) {
  const std::string& who = o.entry.name;
  std::vector<std::string> leaves = scenario_.leavesOf(name);
  std::vector<std::string> heldBefore;
  for (const std::string& l : leaves)
    if (stage_.holds(l, who)) heldBefore.push_back(l);
  std::unique_lock<std::mutex> calls = o.serialise();
  stage_.resource(name)->release(o.owner);
  if (calls) calls.unlock();
  std::vector<std::string> released;
  for (const std::string& l : heldBefore) {
    std::string holder = stage_.stateResource(l) ? kFree : stage_.holderOf(l);
    if (holder == kFree)
      released.push_back(l);
    else if (holder != who)
      log_.add(EventKind::HandedBack, who, l,
               l + " is handed back from " + who + " to " + holder + why);
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
  std::map<std::string, std::string> before = stage_.leafHolders(a.resource);
  std::string was;
  for (const auto& b : before)
    was += (was.empty() ? "" : ", ") + (before.size() == 1 ? b.second : b.first + ": " + b.second);
  std::unique_lock<std::mutex> calls = o.serialise();
  stage_.resource(a.resource)->switchOwner(o.owner, a.label, a.timeout);
  if (calls) calls.unlock();
  log_.add(EventKind::Switched, o.entry.name, a.resource,
           a.resource + " is switched over to " + o.entry.name +
               (was.empty() ? "" : " (was " + was + ")"));
  std::lock_guard<std::mutex> lock(mutex_);
  o.acquired.push_back(a.resource);
}

void Simulation::setState(const ActionEntry& a) {
  ZU::ZUResourceState* state = stage_.stateResource(a.resource);
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

void Simulation::onResource(std::size_t module, const std::string& name) {
  const ModuleEntry& m = scenario_.modules[module];
  {
    std::lock_guard<std::mutex> lock(mutex_);
    notified_[module].push_back(name);
  }
  log_.add(EventKind::Notified, "", name,
           m.name + " is told \"__onResource__\" for " + name +
               (m.releases ? " and lets go in " + std::to_string(m.delayMs) + " ms"
                           : " and ignores it"));
  if (!m.releases) return;
  std::this_thread::sleep_for(std::chrono::milliseconds(m.delayMs));
  for (auto& o : owners_) {
    if (o->entry.module != m.name || !stage_.holds(name, o->entry.name)) continue;
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
    diagnosis_.findDeadlocks();
    if (EventLog::Clock::now() >= nextStaleCheck) {
      diagnosis_.findStaleWaits();
      nextStaleCheck = EventLog::Clock::now() + kStaleCheckPeriod;
    }
  }
}

Simulation::Sample Simulation::sample() {
  Sample s = last_;  // a state resource busy telling its holders keeps its last holders
  s.waiters.clear();
  for (const ResourceEntry& r : scenario_.resources) {
    if (r.kind == ResourceKind::Plain) s.holder[r.name] = stage_.holderOf(r.name);
    if (r.kind != ResourceKind::State) continue;
    ZU::ZUResourceState* state = stage_.stateResource(r.name);
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

void Simulation::observe(const Sample& now, long ms) {
  for (const auto& h : now.holder) {
    std::string was = last_.holder.count(h.first) ? last_.holder.at(h.first) : kFree;
    if (was == h.second) continue;
    timeline_.letsGo(h.first, was, ms);
    if (h.second == kFree) continue;
    timeline_.holds(h.first, h.second, ms);
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
      if (!contains(h.second, name)) timeline_.letsGo(h.first, name, ms);
    for (const std::string& name : h.second)
      if (!contains(was, name)) timeline_.holds(h.first, name, ms);
  }
  for (const auto& a : now.activated) {
    bool was = last_.activated.count(a.first) && last_.activated.at(a.first);
    if (a.second && (!was || ms == 0)) timeline_.activated(a.first, true, ms);
    if (!a.second && was) timeline_.activated(a.first, false, ms);
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
      timeline_.waits(l, o->entry.name, on.holder, ms);
      log_.add(EventKind::Waiting, o->entry.name, l,
               o->entry.name + (on.activation ? " waits for " + l + " to be activated"
                                              : " waits for " + l + ", held by " + on.holder));
      return;
    }
  }
  // A deactivation asks the holders of the state resource to let go.
  if (!on.activation && scenario_.findResource(module)) {
    timeline_.waits(module, "", on.holder, ms);
    log_.add(EventKind::Waiting, "", module,
             "the deactivation of " + module + " waits for " + on.holder + " to let go");
  }
}

void Simulation::endWaiter(const std::string& holder, const std::string& module, long ms) {
  timeline_.waitEnds(holder, ms, [&](const Span& w) {
    const OwnerEntry* o = scenario_.findOwner(w.owner);
    return o ? o->module == module : w.resource == module;
  });
}

// --- Queries. --------------------------------------------------------------------

bool Simulation::isActivated(const std::string& name) { return stage_.stateResource(name)->state; }

std::vector<Outcome> Simulation::outcomesOf(const std::string& owner) {
  std::lock_guard<std::mutex> lock(mutex_);
  return ownerNamed(owner).outcomes;
}

std::vector<std::string> Simulation::notifiedOf(const std::string& module) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (std::size_t i = 0; i < scenario_.modules.size(); ++i)
    if (scenario_.modules[i].name == module) return notified_[i];
  return {};
}

std::string Simulation::explain(const std::string& owner, const std::string& resourceName) {
  if (stage_.ownerNumber(owner) < 0) throw std::invalid_argument("unknown owner \"" + owner + "\"");
  if (!stage_.hasResource(resourceName))
    throw std::invalid_argument("unknown resource \"" + resourceName + "\"");
  return ZU::explain(stage_.resource(resourceName), ownerNamed(owner).owner).toString();
}

Simulation::Owner& Simulation::ownerNamed(const std::string& name) {
  int n = stage_.ownerNumber(name);
  if (n < 0) throw std::logic_error("no owner " + name);
  return *owners_[static_cast<std::size_t>(n)];
}

}  // namespace zusim
