#include <algorithm>
#include <map>
#include <utility>

#include <boost/shared_ptr.hpp>

#include <zuresource/zueventsite.h>
#include <zuresource/zuowner.h>
#include <zuresource/zuresource.h>
#include <zuresource/zuresourcestate.h>
#include <zuresource/zustalewaitchecker.h>
#include <zuresource/zuwaitregistry.h>

namespace ZU {

namespace {

// The resource whose holder this thread's next conflict wait waits on.
thread_local ZUResource* tWaitingOn = nullptr;

// What the waits' polls have reported and still stands. Made once and never
// destroyed, so that a wait ending while the process exits still finds it.
struct Reports {
  ZUMutex mutex;
  // By the sorted ids of its edges: each cycle reported.
  std::map<std::vector<std::uint64_t>, ZUEvent> cycles ZU_GUARDED_BY(mutex);
  // By wait id: each stale wait reported.
  std::map<std::uint64_t, ZUEvent> stale ZU_GUARDED_BY(mutex);
  // (owner, resource) -> the owner that handed it down, from the hand-downs
  // seen while observers were registered.
  std::map<std::pair<std::string, std::string>, std::string> parents ZU_GUARDED_BY(mutex);
  // Atomic: cycles.size() + stale.size(), so that a wait that ends looks no
  // further when nothing is reported.
  std::atomic<int> count{0};
};

Reports& reports() {
  static Reports* const instance = new Reports;
  return *instance;
}

void setOwner(std::string& name, std::string& module, const ZUOwner* owner) {
  if (!owner) return;
  name = owner->name;
  module = owner->moduleName;
}

// Whether `holder` still holds `resource`, by the rules of the stale-wait
// checker: a plain resource's holder; a state resource's own owner while it is
// not activated (the waits through waitFor on a state are on that owner). Read
// without the resource's locks (the holder handle and the state flag are
// atomic): a poll runs inside the wait, with the holder's conflictMutex held,
// and must not order the resource's locks after it.
bool stillHolds(const ZUResource& resource, const ZUOwner& holder) {
  if (const ZUResourceState* state = dynamic_cast<const ZUResourceState*>(&resource))
    return holder.name != state->stateOwner->name || !state->state;
  return resource.currentOwner.load()->name == holder.name;
}

std::vector<std::uint64_t> cycleKey(const ZUWaitCycle& cycle) {
  std::vector<std::uint64_t> key;
  for (const ZUWait& edge : cycle.edges) key.push_back(edge.id);
  std::sort(key.begin(), key.end());
  return key;
}

}  // namespace

namespace eventsite {

void emit(ZUEvent::Kind kind, const std::string& resource, const ZUOwner* owner,
          const ZUOwner* holder) noexcept {
  try {
    ZUEvent event = ZUEvent::make(kind, resource, owner);
    setOwner(event.holder, event.holderModule, holder);
    ZUObservers::emit(std::move(event));
  } catch (...) {
    ZUObservers::noteFailure();
  }
}

void requested(const std::string& resource, const ZUOwner& owner, const std::string& label,
               int timeout, const std::vector<std::string>& noWaitList) noexcept {
  try {
    ZUEvent event = ZUEvent::make(ZUEvent::Kind::Requested, resource, &owner);
    event.label = label;
    event.timeout = timeout;
    event.noWaitList = noWaitList;
    ZUObservers::emit(std::move(event));
  } catch (...) {
    ZUObservers::noteFailure();
  }
}

void granted(ZUPendingEvent& pending, const std::string& resource, const ZUOwner& owner,
             ZUEvent::Grant grant, const ZUOwner* parent) noexcept {
  try {
    ZUEvent event = ZUEvent::make(ZUEvent::Kind::Granted, resource, &owner);
    event.grant = grant;
    if (parent) {
      event.parent = parent->name;
      Reports& r = reports();
      ZUMutexLock lock(r.mutex);
      r.parents[std::make_pair(owner.name, resource)] = parent->name;
    }
    pending.set(std::move(event));
  } catch (...) {
    ZUObservers::noteFailure();
  }
}

void keep(ZUPendingEvent& pending, ZUEvent::Kind kind, const std::string& resource,
          const ZUOwner* owner, const ZUOwner* parent) noexcept {
  try {
    ZUEvent event = ZUEvent::make(kind, resource, owner);
    if (parent) event.parent = parent->name;
    if (owner) {
      Reports& r = reports();
      ZUMutexLock lock(r.mutex);
      r.parents.erase(std::make_pair(owner->name, resource));
    }
    pending.set(std::move(event));
  } catch (...) {
    ZUObservers::noteFailure();
  }
}

void givenBack(ZUPendingEvent& pending, const std::string& resource, const ZUOwner& owner,
               const std::string& reason) noexcept {
  try {
    ZUEvent event = ZUEvent::make(ZUEvent::Kind::GivenBack, resource, &owner);
    event.reason = reason;
    pending.set(std::move(event));
  } catch (...) {
    ZUObservers::noteFailure();
  }
}

void stopped(const std::string& resource, const ZUOwner* owner, const ZUOwner& holder,
             ZUEvent::Cause cause) noexcept {
  try {
    ZUEvent event = ZUEvent::make(ZUEvent::Kind::Stopped, resource, owner);
    setOwner(event.holder, event.holderModule, &holder);
    event.cause = cause;
    ZUObservers::emit(std::move(event));
  } catch (...) {
    ZUObservers::noteFailure();
  }
}

void waitEvent(ZUEvent::Kind kind, const std::string& resource, const ZUOwner& owner,
               const ZUOwner& holder, int timeout) noexcept {
  try {
    ZUEvent event = ZUEvent::make(kind, resource, &owner);
    setOwner(event.holder, event.holderModule, &holder);
    event.timeout = timeout;
    ZUObservers::emit(std::move(event));
  } catch (...) {
    ZUObservers::noteFailure();
  }
}

// --- WaitingOn ---------------------------------------------------------------------

WaitingOn::WaitingOn(ZUResource* resource) {
  if (!ZUObservers::active()) return;
  set_ = true;
  outer_ = tWaitingOn;
  tWaitingOn = resource;
}

WaitingOn::~WaitingOn() {
  if (set_) tWaitingOn = outer_;
}

// --- WaitWatch ---------------------------------------------------------------------

WaitWatch::WaitWatch(std::uint64_t waitId, const ZUOwner& holder)
    : waitId_(waitId), holder_(holder), resource_(tWaitingOn) {
  tWaitingOn = nullptr;  // for this wait only, not for waits it may cause
}

void WaitWatch::poll() noexcept {
  if (waitId_ == 0 || !ZUObservers::active()) return;
  try {
    std::vector<ZUEvent> found;
    const std::vector<ZUWait> waits = ZUWaitRegistry::snapshot();

    // A cycle through this wait, reported by whichever of its waits polls first.
    for (ZUWaitCycle& cycle : ZUWaitRegistry::findCycles(waits)) {
      bool mine = false;
      for (const ZUWait& edge : cycle.edges) mine = mine || edge.id == waitId_;
      if (!mine) continue;
      ZUEvent event;
      event.kind = ZUEvent::Kind::DeadlockFormed;
      for (const ZUWait& edge : cycle.edges) event.since = std::max(event.since, edge.since);
      event.resource = cycle.edges.front().resource;
      event.owner = cycle.edges.front().waiter;
      event.ownerModule = cycle.edges.front().waiterModule;
      event.waits = std::move(cycle.edges);
      ZUWaitCycle keyed;
      keyed.edges = event.waits;
      Reports& r = reports();
      ZUMutexLock lock(r.mutex);
      if (r.cycles.emplace(cycleKey(keyed), event).second) {
        r.count.fetch_add(1);
        found.push_back(std::move(event));
      }
    }

    // Gone stale: its holder has not held the resource for a while.
    if (resource_ && !stale_) {
      const std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now();
      if (stillHolds(*resource_, holder_)) {
        notHoldingSince_ = std::chrono::steady_clock::time_point();
      } else if (notHoldingSince_ == std::chrono::steady_clock::time_point()) {
        notHoldingSince_ = now;
      } else if (now - notHoldingSince_ >
                 std::chrono::milliseconds(ZUStaleWaitChecker::kStaleAfterMs)) {
        for (const ZUWait& wait : waits) {
          if (wait.id != waitId_) continue;
          ZUEvent event = ZUEvent::make(ZUEvent::Kind::StaleWait, wait.resource, nullptr);
          event.owner = wait.waiter;
          event.ownerModule = wait.waiterModule;
          event.holder = wait.holder;
          event.holderModule = wait.holderModule;
          event.since = notHoldingSince_;
          event.waits.push_back(wait);
          Reports& r = reports();
          ZUMutexLock lock(r.mutex);
          r.stale.emplace(waitId_, event);
          r.count.fetch_add(1);
          found.push_back(std::move(event));
        }
        stale_ = true;
      }
    }
    for (ZUEvent& event : found) ZUObservers::emit(std::move(event));
  } catch (...) {
    ZUObservers::noteFailure();
  }
}

WaitWatch::~WaitWatch() {
  if (waitId_ == 0) return;
  Reports& r = reports();
  if (r.count.load() == 0) return;
  std::vector<ZUEvent> broken;
  try {
    ZUMutexLock lock(r.mutex);
    if (r.stale.erase(waitId_)) r.count.fetch_sub(1);
    for (auto it = r.cycles.begin(); it != r.cycles.end();) {
      if (std::binary_search(it->first.begin(), it->first.end(), waitId_)) {
        broken.push_back(std::move(it->second));
        broken.back().kind = ZUEvent::Kind::DeadlockBroken;
        broken.back().sequence = 0;
        it = r.cycles.erase(it);
        r.count.fetch_sub(1);
      } else {
        ++it;
      }
    }
  } catch (...) {
    ZUObservers::noteFailure();
  }
  if (ZUObservers::active())
    for (ZUEvent& event : broken) ZUObservers::emit(std::move(event));
}

}  // namespace eventsite

void currentDiagnostics(std::vector<ZUEvent>& cycles, std::vector<ZUEvent>& staleWaits,
                        std::map<std::pair<std::string, std::string>, std::string>& parents) {
  Reports& r = reports();
  ZUMutexLock lock(r.mutex);
  parents = r.parents;
  for (const auto& entry : r.cycles) cycles.push_back(entry.second);
  for (const auto& entry : r.stale) staleWaits.push_back(entry.second);
}

}  // namespace ZU
