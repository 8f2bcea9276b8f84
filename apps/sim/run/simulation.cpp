#include "run/simulation.h"

#include <algorithm>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <boost/make_shared.hpp>

#include <zuhost/zumutex.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuexplain.h>
#include <zuresource/zuownerstrong.h>

#include "run/sentences.h"

namespace zusim {

namespace {

// Who an owner waits behind while its robot waits for a fleet lock.
const char kFleet[] = "the fleet";
// Changes this close together are taken as one step of the library.
const std::chrono::milliseconds kSameMoment(50);

bool contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
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
  /// caller to keep one owner's calls apart. A release for such an owner
  /// therefore waits while the owner waits, and the log says so.
  std::mutex calls;

  // Guarded by Simulation::mutex_.
  std::string pending;                     // the resource it waits for now
  std::vector<std::string> pendingNoWait;  // and the names it will not wait for
  std::vector<std::string> acquired;       // what it asked for and holds, oldest first
  std::vector<Outcome> outcomes;
  long lastReleaseMs = -1;     // its latest release, which may leave its release flag set
  bool flagAtRequest = false;  // its release flag was set when its pending request began
  // The fleet resources its pending request took here: they are its own once
  // the fleet's lock is too, when the request is granted.
  std::vector<ZU::ZUEvent> fleetGrants;
  bool stopRequested = false;  // the manager stopped its pending request

  Owner(const OwnerEntry& s, boost::shared_ptr<ZU::ZUOwner> o) : entry(s), owner(std::move(o)) {}
};

/// Hands the library's events to the run.
class Simulation::Events : public ZU::ZUObserver {
 public:
  explicit Events(Simulation& run) : run_(run) {}
  void onEvent(const ZU::ZUEvent& event) override { run_.onEvent(event); }

 private:
  Simulation& run_;
};

Simulation::Simulation(const Scenario& scenario, EventLog& log,
                       const std::vector<std::string>& etcd)
    : scenario_(scenario),
      log_(log),
      stage_(
          scenario, [this](std::size_t m, const std::string& r) { onResource(m, r); }, etcd),
      timeline_(scenario),
      diagnosis_(stage_, log),
      notified_(scenario.modules.size()),
      killed_(scenario.robots.size()) {
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
  for (const ResourceEntry& r : scenario_.resources)
    if (r.activated) timeline_.activated(r.name, true, 0);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    running_ = static_cast<int>(byOwner.size());
  }
  boost::shared_ptr<Events> events = boost::make_shared<Events>(*this);
  ZU::ZUObservers::add(events);
  std::thread checker, manager;
  std::vector<std::thread> threads;
  try {
    checker = std::thread(&Simulation::checkerThread, this, std::ref(record.results));
    manager = std::thread(&Simulation::managerThread, this, managerActions);
    threads.reserve(byOwner.size());
    for (const auto& entry : byOwner)
      threads.emplace_back(&Simulation::ownerThread, this, std::ref(ownerNamed(entry.first)),
                           entry.second);
  } catch (const std::system_error& e) {
    // The system refuses another thread: the threads made end before they
    // act, and the run is refused.
    {
      std::lock_guard<std::mutex> lock(mutex_);
      calledOff_ = started_ = true;
    }
    go_.notify_all();
    for (std::thread* t : {&checker, &manager})
      if (t->joinable()) t->join();
    for (std::thread& t : threads) t.join();
    ZU::ZUObservers::remove(events);
    throw ScenarioError(escapeControls(scenario_.file, false) +
                        ": cannot run: the system refuses a thread (" +
                        std::to_string(threads.size()) + " of the " +
                        std::to_string(byOwner.size()) + " owners' threads made): " + e.what());
  }
  // Time 0 is when every thread is ready: making threads can take long.
  log_.restart();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    started_ = true;
  }
  go_.notify_all();

  bool ended;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    ownersDone_.wait_until(lock, log_.at(scenario_.stopAtMs),
                           [this] { return running_ == 0 || interrupted_; });
    ended = running_ == 0 && !interrupted_;
  }
  if (!ended) stopEverything();
  for (std::thread& t : threads) t.join();
  manager.join();
  checker.join();
  stage_.waitIdle();
  ZU::ZUObservers::remove(events);

  record.endMs = log_.now();
  timeline_.close(record.endMs, record);
  for (const ExpectEntry& x : scenario_.expectations)
    if (x.atMs < 0) record.results.push_back(check(x, *this));
  record.finalStatus = statusLines();
  return record;
}

void Simulation::stopNow() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (interrupted_ || stopped_) return;
    interrupted_ = true;
    stoppedAtMs_ = log_.now();
  }
  log_.add(EventKind::Manager, "", "", sentence::interrupted());
  ownersDone_.notify_all();
}

bool Simulation::sleepUntil(long ms) {
  std::unique_lock<std::mutex> lock(mutex_);
  // stopAt comes after every action: only an interruption cuts a sleep short.
  stopping_.wait_until(lock, log_.at(ms), [this] { return interrupted_ && stopped_; });
  return !interrupted_;
}

std::string Simulation::stoppedText() {
  std::lock_guard<std::mutex> lock(mutex_);
  return sentence::stoppedAt(stoppedAtMs_);
}

bool Simulation::awaitStart() {
  std::unique_lock<std::mutex> lock(mutex_);
  go_.wait(lock, [this] { return started_; });
  return !calledOff_;
}

void Simulation::ownerThread(Owner& o, const std::vector<const ActionEntry*>& actions) {
  if (!awaitStart()) return;
  for (const ActionEntry* a : actions) {
    sleepUntil(a->atMs);
    bool stopped, killed;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopped = stopped_;
      killed = o.entry.robot >= 0 && killed_[o.entry.robot];
    }
    if (killed) {
      log_.add(EventKind::Manager, o.entry.name, a->resource,
               sentence::dropped(a->entry, o.entry.name, a->atMs,
                                 sentence::robotWasKilled(scenario_.robots[o.entry.robot].name)));
      continue;
    }
    // A blocking request may delay an owner's later actions past stopAt.
    if (stopped) {
      log_.add(EventKind::Manager, o.entry.name, a->resource,
               sentence::dropped(a->entry, o.entry.name, a->atMs, stoppedText()));
      continue;
    }
    if (a->kind == ActionKind::WaitFor) waitFor(o, *a);
    if (a->kind == ActionKind::Release) release(o, a->resource, "");
    if (a->kind == ActionKind::SwitchOwner) switchOwner(o, *a);
  }
  std::lock_guard<std::mutex> lock(mutex_);
  --running_;
  ownersDone_.notify_all();
}

void Simulation::managerThread(const std::vector<const ActionEntry*>& actions) {
  if (!awaitStart()) return;
  for (const ActionEntry* a : actions) {
    if (!sleepUntil(a->atMs)) return;
    // A long state change may delay the manager's later actions past stopAt,
    // also when every owner is done before it.
    if (log_.now() > scenario_.stopAtMs) {
      log_.add(EventKind::Manager, a->owner, a->resource,
               sentence::managerActionDropped(a->entry, a->atMs, scenario_.stopAtMs));
      continue;
    }
    if (a->kind == ActionKind::Stop) {
      log_.add(EventKind::Manager, a->owner, a->resource,
               sentence::managerStops(a->owner, a->resource));
      Owner& o = ownerNamed(a->owner);
      {
        std::lock_guard<std::mutex> lock(mutex_);
        o.stopRequested = !o.pending.empty();
      }
      release(o, a->resource, sentence::stoppedByManager());
    } else if (a->kind == ActionKind::SetState || a->kind == ActionKind::ReleaseState) {
      setState(*a);
    } else {
      fleetAction(*a);
    }
  }
}

void Simulation::checkerThread(std::vector<ExpectResult>& results) {
  if (!awaitStart()) return;
  std::vector<const ExpectEntry*> timed;
  for (const ExpectEntry& x : scenario_.expectations)
    if (x.atMs >= 0) timed.push_back(&x);
  std::stable_sort(timed.begin(), timed.end(),
                   [](const ExpectEntry* a, const ExpectEntry* b) { return a->atMs < b->atMs; });
  for (const ExpectEntry* x : timed) {
    if (sleepUntil(x->atMs))
      results.push_back(check(*x, *this));
    else
      results.push_back({x->entry, false, "not checked: " + stoppedText()});
  }
}

void Simulation::waitFor(Owner& o, const ActionEntry& a) {
  const std::string& who = o.entry.name;
  log_.add(EventKind::Request, who, a.resource,
           sentence::requests(who, a.resource, a.timeout, a.noWait));
  std::map<std::string, std::string> before = stage_.leafHolders(a.resource);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    o.pending = a.resource;
    o.pendingNoWait = a.noWait;
    o.flagAtRequest = o.owner->resourceFreed;
    o.stopRequested = false;
  }
  Outcome out;
  out.resource = a.resource;
  std::vector<std::string> noWait;  // as the library names them
  for (const std::string& n : a.noWait) noWait.push_back(scenario_.findResource(n)->libraryName);
  std::unique_lock<std::mutex> calls = serialise(o, sentence::requestCall(who, a.resource));
  try {
    out.notObtained = stage_.resource(a.resource)->waitFor(o.owner, a.label, a.timeout, noWait);
    for (std::string& n : out.notObtained) n = scenario_.resourceOf(o.entry.robot, n);
    out.kind = out.notObtained.empty() ? OutcomeKind::Granted : OutcomeKind::NotObtained;
    // A hand-down is the one change of holder that records the giver as the
    // new holder's parent owner for that resource.
    for (const auto& b : before) {
      if (b.second == who || b.second == ZU::contract::kPlaceholderName ||
          stage_.holderOf(b.first) != who)
        continue;
      boost::shared_ptr<ZU::ZUOwner> parent = o.owner->getParentOwner(b.first);
      if (parent && parent->name == b.second)
        log_.add(EventKind::HandedDown, who, b.first,
                 sentence::handedDown(b.first, b.second, who));
    }
  } catch (const ZU::ZUError& e) {
    out.error = e.getDescription();
    out.kind = out.error.rfind(ZU::contract::kWaitTimedOutPrefix, 0) == 0 ? OutcomeKind::TimedOut
               : out.error == ZU::contract::kStopWhileWaiting             ? OutcomeKind::Stopped
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
  if (granted)
    for (const ZU::ZUEvent& g : o.fleetGrants) timeline_.record(g, out.ms);
  o.fleetGrants.clear();
  if (granted || !heldNow.empty()) o.acquired.push_back(result.resource);
  if (granted) {
    log_.add(EventKind::Granted, who, result.resource, sentence::granted(who, result.resource));
    return;
  }
  if (out.kind == OutcomeKind::NotObtained) {
    log_.add(EventKind::NotObtained, who, out.notObtained.front(),
             sentence::givesUpOn(who, out.notObtained, heldNow));
    return;
  }
  if (out.kind == OutcomeKind::TimedOut)
    lane = scenario_.resourceOf(o.entry.robot,
                                out.error.substr(sizeof ZU::contract::kWaitTimedOutPrefix - 1));
  EventKind kind = out.kind == OutcomeKind::TimedOut  ? EventKind::TimedOut
                   : out.kind == OutcomeKind::Stopped ? EventKind::Stopped
                                                      : EventKind::Failed;
  // A stop that nobody asked for: the owner's own release set its flag, and
  // no wait on it has cleared the flag since.
  std::string why;
  if (out.kind == OutcomeKind::Stopped && !o.stopRequested && o.flagAtRequest &&
      o.lastReleaseMs >= 0)
    why = sentence::ownReleaseLeftFlag(o.lastReleaseMs);
  if (o.entry.robot >= 0 && killed_[o.entry.robot]) why = sentence::killedRobot();
  log_.add(kind, who, lane, sentence::waitFails(who, result.resource, out.error, why));
  // What the owner held in the group until the failure, and no longer holds,
  // was given back by the group on the way out. A holding that ended well
  // before the failure was let go for another reason.
  for (const std::string& g : timeline_.heldSince(who, leaves, out.ms - kSameMoment.count()))
    if (!contains(heldNow, g) && g != lane)
      log_.add(EventKind::GaveBack, who, g,
               sentence::givesBack(who, g, result.resource));
}

void Simulation::release(Owner& o, const std::string& name, const std::string& why) {
  const std::string& who = o.entry.name;
  std::vector<std::string> leaves = scenario_.leavesOf(name);
  std::vector<std::string> heldBefore;
  for (const std::string& l : leaves)
    if (stage_.holds(l, who)) heldBefore.push_back(l);
  std::unique_lock<std::mutex> calls = serialise(o, sentence::releaseCall(who, name));
  stage_.resource(name)->release(o.owner);
  if (calls) calls.unlock();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    o.lastReleaseMs = log_.now();
  }
  std::vector<std::string> released;
  for (const std::string& l : heldBefore) {
    std::string holder =
        stage_.stateResource(l) ? ZU::contract::kPlaceholderName : stage_.holderOf(l);
    if (holder == ZU::contract::kPlaceholderName)
      released.push_back(l);
    else if (holder != who)
      log_.add(EventKind::HandedBack, who, l,
               sentence::handedBack(l, who, holder, why));
  }
  if (!released.empty())
    log_.add(EventKind::Released, who, name, sentence::releases(who, name, released, why));
  if (heldBefore.empty())
    log_.add(EventKind::Released, who, name,
             sentence::givesUpNotHeld(who, name, why));
  std::lock_guard<std::mutex> lock(mutex_);
  o.acquired.erase(std::remove(o.acquired.begin(), o.acquired.end(), name), o.acquired.end());
}

void Simulation::switchOwner(Owner& o, const ActionEntry& a) {
  std::map<std::string, std::string> before = stage_.leafHolders(a.resource);
  std::string was;
  for (const auto& b : before)
    was += (was.empty() ? "" : ", ") + (before.size() == 1 ? b.second : b.first + ": " + b.second);
  std::unique_lock<std::mutex> calls =
      serialise(o, sentence::switchCall(o.entry.name, a.resource));
  stage_.resource(a.resource)->switchOwner(o.owner, a.label, a.timeout);
  if (calls) calls.unlock();
  log_.add(EventKind::Switched, o.entry.name, a.resource,
           sentence::switched(a.resource, o.entry.name, was));
  std::lock_guard<std::mutex> lock(mutex_);
  o.acquired.push_back(a.resource);
}

void Simulation::setState(const ActionEntry& a) {
  ZU::ZUResourceState* state = stage_.stateResource(a.resource);
  if (a.kind == ActionKind::SetState && a.activated) {
    log_.add(EventKind::State, "", a.resource, sentence::activated(a.resource));
    timeline_.activated(a.resource, true, log_.now());
    state->setState(true);
    return;
  }
  std::vector<std::string> holders = stage_.holdersOf(a.resource);
  std::vector<std::size_t> toldBefore = notifications(a.resource);
  // The state library emits its switches with no owner, which the event
  // filter cannot tell from another run's: the timeline hears them here.
  timeline_.activated(a.resource, false, log_.now());
  if (a.kind == ActionKind::SetState) {
    log_.add(EventKind::State, "", a.resource,
             sentence::deactivated(a.resource));
    state->setState(false);
  } else {
    log_.add(EventKind::State, "", a.resource,
             sentence::deactivatedByReleaseState(a.resource));
    try {
      state->releaseState();
    } catch (const ZU::ZUError& e) {
      log_.add(EventKind::Failed, "", a.resource,
               sentence::releaseStateEnds(a.resource, e.getDescription()));
    }
  }
  // The holders are told in turn, each given one polling period to let go;
  // the telling ends at the first that has not (a release of the state
  // resource waits until the telling is over), and the rest are never told.
  std::vector<std::size_t> toldAfter = notifications(a.resource);
  std::string last;
  std::vector<std::string> untold;
  for (const std::string& h : holders) {
    int n = stage_.ownerNumber(h);
    std::size_t m = n < 0 ? 0 : scenario_.moduleIndex.at(ownerNamed(h).entry.module);
    if (n >= 0 && toldAfter[m] > toldBefore[m])
      last = h;
    else
      untold.push_back(h);
  }
  if (!last.empty() && !untold.empty())
    log_.add(EventKind::State, "", a.resource,
             sentence::deactivationStopped(a.resource, last, untold));
}

std::vector<std::size_t> Simulation::notifications(const std::string& resource) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::size_t> out;
  for (const std::vector<std::string>& told : notified_)
    out.push_back(static_cast<std::size_t>(std::count(told.begin(), told.end(), resource)));
  return out;
}

void Simulation::onResource(std::size_t module, const std::string& libraryName) {
  const ModuleEntry& m = scenario_.modules[module];
  const std::string name = scenario_.resourceOf(m.robot, libraryName);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (m.robot >= 0 && killed_[m.robot]) return;  // a dead robot hears nothing
    notified_[module].push_back(name);
  }
  log_.add(EventKind::Notified, "", name,
           sentence::told(m.name, name, m.releases, m.delayMs));
  if (!m.releases) return;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    EventLog::Clock::time_point until =
        EventLog::Clock::now() + std::chrono::milliseconds(m.delayMs);
    if (stopping_.wait_until(lock, until, [this] { return stopped_; })) {
      lock.unlock();
      log_.add(EventKind::Manager, "", name,
               sentence::moduleReleaseDropped(m.name, name, stoppedText()));
      return;
    }
  }
  for (auto& o : owners_) {
    if (o->entry.module != m.name || !stage_.holds(name, o->entry.name)) continue;
    // The owner gives up what it asked for that holds the wanted resource.
    std::string what = name;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      for (const std::string& a : o->acquired)
        if (contains(scenario_.leavesOf(a), name)) what = a;
    }
    release(*o, what, sentence::afterOnResource());
  }
}

void Simulation::stopEverything() {
  std::vector<Owner*> logged;
  std::unique_lock<std::mutex> lock(mutex_);
  stopped_ = true;
  if (!interrupted_) stoppedAtMs_ = scenario_.stopAtMs;
  stopping_.notify_all();
  do {
    std::vector<std::pair<Owner*, std::string>> waits;
    for (auto& o : owners_) {
      if (o->pending.empty()) continue;
      o->stopRequested = true;
      waits.emplace_back(o.get(), o->pending);
      if (std::find(logged.begin(), logged.end(), o.get()) != logged.end()) continue;
      logged.push_back(o.get());
      log_.add(EventKind::Manager, o->entry.name, o->pending,
               sentence::stopsStillWaiting(o->entry.name, o->pending));
    }
    lock.unlock();
    interrupt(waits);
    lock.lock();
  } while (!ownersDone_.wait_for(lock, std::chrono::milliseconds(ZU::ZUOwnerStrong::kPollPeriodMs),
                                 [this] { return running_ == 0; }));
}

void Simulation::interrupt(const std::vector<std::pair<Owner*, std::string>>& waits) {
  for (const auto& w : waits) {
    w.first->owner->freeResource();
    const std::vector<std::string> leaves = scenario_.leavesOf(w.second);
    if (std::any_of(leaves.begin(), leaves.end(),
                    [this](const std::string& l) { return scenario_.findResource(l)->fleet; }))
      stage_.resource(w.second)->release(w.first->owner);
  }
}

void Simulation::fleetAction(const ActionEntry& a) {
  const std::string robot = a.robot >= 0 ? scenario_.robots[a.robot].name : "";
  switch (a.kind) {
    case ActionKind::Kill: {
      log_.add(EventKind::Manager, "", "",
               sentence::kills(robot));
      stage_.cutOff(a.robot, true);
      std::vector<std::pair<Owner*, std::string>> waits;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        killed_[a.robot] = true;
        for (auto& o : owners_)
          if (o->entry.robot == a.robot && !o->pending.empty()) {
            o->stopRequested = true;
            waits.emplace_back(o.get(), o->pending);
          }
      }
      interrupt(waits);
      return;
    }
    case ActionKind::CutOff:
      log_.add(EventKind::Manager, "", "",
               sentence::cutOff(robot, a.untilMs));
      stage_.cutOff(a.robot, true);
      return;
    case ActionKind::Reconnect: {
      bool killed;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        killed = killed_[a.robot];
      }
      if (killed) return;
      stage_.cutOff(a.robot, false);
      log_.add(EventKind::Manager, "", "", sentence::reconnects(robot));
      return;
    }
    case ActionKind::EtcdDown:
      log_.add(EventKind::Manager, "", "",
               sentence::etcdDown(a.untilMs));
      stage_.etcdDown();
      return;
    case ActionKind::EtcdUp:
      stage_.etcdUp();
      log_.add(EventKind::Manager, "", "", sentence::etcdUp());
      return;
    default:
      return;
  }
}

std::unique_lock<std::mutex> Simulation::serialise(Owner& o, const std::string& what) {
  if (!o.mayBeHandedDown) return std::unique_lock<std::mutex>();
  std::unique_lock<std::mutex> calls(o.calls, std::try_to_lock);
  if (calls) return calls;
  log_.add(EventKind::Manager, o.entry.name, "",
           sentence::callWaits(what, o.entry.name));
  calls.lock();
  return calls;
}

// --- The library's events. -------------------------------------------------------

void Simulation::onEvent(const ZU::ZUEvent& event) {
  using Kind = ZU::ZUEvent::Kind;
  long ms = log_.msOf(event.time);
  // A fleet resource's events carry the name all robots share: each robot's
  // is its own resource here.
  ZU::ZUEvent named;
  const OwnerEntry* by = scenario_.robots.empty() ? nullptr : scenario_.findOwner(event.owner);
  if (by) {
    named = event;
    named.resource = scenario_.resourceOf(by->robot, event.resource);
  }
  const ZU::ZUEvent& e = by ? named : event;
  if (e.kind == Kind::DeadlockFormed || e.kind == Kind::DeadlockBroken ||
      e.kind == Kind::StaleWait) {
    diagnosis_.record(e, ms);
    return;
  }
  const ResourceEntry* r = scenario_.findResource(e.resource);
  bool deactivation = r && r->kind == ResourceKind::State && e.owner == e.resource;
  if (!r || (!deactivation && stage_.ownerNumber(e.owner) < 0)) return;  // another run's
  if (r->fleet && e.kind == Kind::Granted && e.grant != ZU::ZUEvent::Grant::AlreadyHeld) {
    std::unique_lock<std::mutex> lock(mutex_);
    Owner& o = ownerNamed(e.owner);
    if (!o.pending.empty()) {
      o.fleetGrants.push_back(e);
      lock.unlock();
      ZU::ZUEvent wait = e;
      wait.kind = Kind::Waiting;
      wait.holder = kFleet;
      timeline_.record(wait, ms);
      log_.add(ms, EventKind::Waiting, e.owner, e.resource,
               sentence::asksFleet(e.owner, r->libraryName));
      return;
    }
  }
  bool news = timeline_.record(e, ms);
  if (e.kind == Kind::Lost && by) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (killed_[by->robot]) return;  // a dead robot learns nothing
    }
    log_.add(ms, EventKind::Lost, e.owner, e.resource,
             sentence::loses(e.owner, e.resource, e.reason));
  }
  if (e.kind == Kind::Waiting && news) {
    if (deactivation)
      log_.add(ms, EventKind::Waiting, "", e.resource,
               sentence::deactivationWaits(e.resource, e.holder));
    else if (r->fleet && e.holder != kFleet)
      log_.add(ms, EventKind::Waiting, e.owner, e.resource,
               sentence::waitsBehindRobot(e.owner, e.resource, e.holder));
    else if (e.holder == e.resource && r->kind == ResourceKind::State)
      log_.add(ms, EventKind::Waiting, e.owner, e.resource,
               sentence::waitsToBeActivated(e.owner, e.resource));
    else
      log_.add(ms, EventKind::Waiting, e.owner, e.resource,
               sentence::waitsHeldBy(e.owner, e.resource, e.holder));
  } else if (e.kind == Kind::Granted && r->kind != ResourceKind::Group &&
             e.grant != ZU::ZUEvent::Grant::AlreadyHeld) {
    // A group's member taken on the way through the group's walk.
    std::string pending;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      pending = ownerNamed(e.owner).pending;
    }
    if (!pending.empty() && pending != e.resource &&
        scenario_.findResource(pending)->kind == ResourceKind::Group)
      log_.add(ms, EventKind::Granted, e.owner, e.resource,
               sentence::takesMember(e.owner, e.resource, pending));
  }
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
  if (stage_.ownerNumber(owner) < 0)
    throw std::invalid_argument("unknown owner " + quoteName(owner));
  if (!stage_.hasResource(resourceName))
    throw std::invalid_argument("unknown resource " + quoteName(resourceName));
  return ZU::explain(stage_.resource(resourceName), ownerNamed(owner).owner).toString();
}

Simulation::Owner& Simulation::ownerNamed(const std::string& name) {
  int n = stage_.ownerNumber(name);
  if (n < 0) throw std::logic_error("no owner " + name);
  return *owners_[static_cast<std::size_t>(n)];
}

}  // namespace zusim
