#include <algorithm>
#include <condition_variable>
#include <memory>
#include <utility>

#include <zuhost/zumutex.h>

#include <zuresource/zuobserver.h>
#include <zuresource/zuowner.h>

namespace ZU {

namespace {

// One registration. A delivery counts itself in `inFlight`, then looks at
// `removed`; remove() sets `removed`, then looks at `inFlight` (both in the
// single total order of sequentially consistent operations): either the
// delivery sees the removal and calls nothing, or remove() sees the call and
// waits for it. A call that leaves after a removal wakes remove() under
// `mutex`, which remove() holds while it tests, so no wake-up is lost.
struct Registration {
  explicit Registration(const boost::shared_ptr<ZUObserver>& o) : observer(o) {}
  boost::shared_ptr<ZUObserver> observer;  // immutable
  std::atomic<int> inFlight{0};            // atomic: calls running now
  std::atomic<bool> removed{false};        // atomic: no call starts once set
  ZUMutex mutex;                           // guards nothing; pairs with `idle`
  std::condition_variable idle;
};

// Every call that leaves after a removal wakes remove(): one called from
// inside the observer waits for the count to fall to its own calls, not to 0.
void leave(Registration& r) {
  r.inFlight.fetch_sub(1);
  if (r.removed.load()) {
    ZUMutexLock lock(r.mutex);
    r.idle.notify_all();
  }
}

using List = std::vector<std::shared_ptr<Registration> >;

// The list behind ZUObservers. Made once and never destroyed, so that an
// event emitted while the process exits still finds it.
struct Observers {
  ZUMutex mutex;
  std::shared_ptr<const List> list ZU_GUARDED_BY(mutex) = std::make_shared<List>();  // copied on write
  std::atomic<std::uint64_t> sequence{0};
  std::atomic<std::uint64_t> failures{0};
};

Observers& observers() {
  static Observers* const instance = new Observers;
  return *instance;
}

// The registrations whose onEvent runs in this thread now, innermost last.
thread_local std::vector<const Registration*> tDelivering;
// The innermost deferral of this thread, or null.
thread_local ZUEventDeferral* tDeferral = nullptr;

void deliver(const ZUEvent& event) noexcept {
  Observers& all = observers();
  std::shared_ptr<const List> list;
  {
    ZUMutexLock lock(all.mutex);
    list = all.list;
  }
  for (const std::shared_ptr<Registration>& r : *list) {
    r->inFlight.fetch_add(1);
    if (r->removed.load()) {
      leave(*r);
      continue;
    }
    try {
      tDelivering.push_back(r.get());
      try {
        r->observer->onEvent(event);
      } catch (...) {
        all.failures.fetch_add(1, std::memory_order_relaxed);
      }
      tDelivering.pop_back();
    } catch (...) {
      all.failures.fetch_add(1, std::memory_order_relaxed);  // no memory to note the call
    }
    leave(*r);
  }
}

}  // namespace

std::atomic<int> ZUObservers::count_{0};

ZUEvent ZUEvent::make(Kind kind, const std::string& resource, const ZUOwner* owner) {
  ZUEvent event;
  event.kind = kind;
  event.resource = resource;
  if (owner) {
    event.owner = owner->name;
    event.ownerModule = owner->moduleName;
  }
  return event;
}

const char* kindName(ZUEvent::Kind kind) {
  switch (kind) {
    case ZUEvent::Kind::Requested:
      return "requested";
    case ZUEvent::Kind::Waiting:
      return "waiting";
    case ZUEvent::Kind::Notified:
      return "notified";
    case ZUEvent::Kind::Granted:
      return "granted";
    case ZUEvent::Kind::HandedBack:
      return "handedBack";
    case ZUEvent::Kind::Released:
      return "released";
    case ZUEvent::Kind::GivenBack:
      return "givenBack";
    case ZUEvent::Kind::NotObtained:
      return "notObtained";
    case ZUEvent::Kind::TimedOut:
      return "timedOut";
    case ZUEvent::Kind::Stopped:
      return "stopped";
    case ZUEvent::Kind::StateActivated:
      return "stateActivated";
    case ZUEvent::Kind::StateDeactivated:
      return "stateDeactivated";
    case ZUEvent::Kind::Switched:
      return "switched";
    case ZUEvent::Kind::DeadlockFormed:
      return "deadlockFormed";
    case ZUEvent::Kind::DeadlockBroken:
      return "deadlockBroken";
    case ZUEvent::Kind::StaleWait:
      return "staleWait";
    case ZUEvent::Kind::Lost:
      return "lost";
  }
  return "unknown";
}

const char* grantName(ZUEvent::Grant grant) {
  switch (grant) {
    case ZUEvent::Grant::None:
      return "none";
    case ZUEvent::Grant::WasFree:
      return "wasFree";
    case ZUEvent::Grant::HandedDown:
      return "handedDown";
    case ZUEvent::Grant::AlreadyHeld:
      return "alreadyHeld";
    case ZUEvent::Grant::StateActivated:
      return "stateActivated";
  }
  return "unknown";
}

const char* causeName(ZUEvent::Cause cause) {
  switch (cause) {
    case ZUEvent::Cause::None:
      return "none";
    case ZUEvent::Cause::OwnRelease:
      return "ownRelease";
    case ZUEvent::Cause::ManagerStop:
      return "managerStop";
    case ZUEvent::Cause::Destruction:
      return "destruction";
  }
  return "unknown";
}

void ZUObservers::add(const boost::shared_ptr<ZUObserver>& observer) {
  if (!observer) return;
  Observers& all = observers();
  std::shared_ptr<Registration> added = std::make_shared<Registration>(observer);
  ZUMutexLock lock(all.mutex);
  std::shared_ptr<List> list = std::make_shared<List>(*all.list);
  list->push_back(std::move(added));
  all.list = std::move(list);
  count_.fetch_add(1, std::memory_order_relaxed);
}

bool ZUObservers::remove(const boost::shared_ptr<ZUObserver>& observer) {
  Observers& all = observers();
  List gone;
  {
    ZUMutexLock lock(all.mutex);
    std::shared_ptr<List> list = std::make_shared<List>();
    for (const std::shared_ptr<Registration>& r : *all.list)
      (r->observer == observer ? gone : *list).push_back(r);
    if (gone.empty()) return false;
    all.list = std::move(list);
    count_.fetch_sub(static_cast<int>(gone.size()), std::memory_order_relaxed);
  }
  for (const std::shared_ptr<Registration>& r : gone) {
    const int own = static_cast<int>(std::count(tDelivering.begin(), tDelivering.end(), r.get()));
    r->removed.store(true);
    ZUMutexLock lock(r->mutex);
    while (r->inFlight.load() > own) lock.wait(r->idle);
  }
  return true;
}

void ZUObservers::stamp(ZUEvent& event) {
  event.time = std::chrono::steady_clock::now();
  event.sequence = observers().sequence.fetch_add(1, std::memory_order_relaxed) + 1;
  event.thread = std::this_thread::get_id();
}

void ZUObservers::emit(ZUEvent event) noexcept {
  if (event.sequence == 0) stamp(event);
  if (tDeferral) {
    try {
      // Kept by the outermost deferral, which delivers in order.
      ZUEventDeferral* outermost = tDeferral;
      while (outermost->outer_) outermost = outermost->outer_;
      outermost->kept_.push_back(std::move(event));
      return;
    } catch (...) {
      observers().failures.fetch_add(1, std::memory_order_relaxed);
      return;
    }
  }
  deliver(event);
}

std::uint64_t ZUObservers::failures() {
  return observers().failures.load(std::memory_order_relaxed);
}

void ZUObservers::noteFailure() noexcept {
  observers().failures.fetch_add(1, std::memory_order_relaxed);
}

void ZUPendingEvent::set(ZUEvent event) noexcept {
  try {
    ZUObservers::stamp(event);
    event_.reset(new ZUEvent(std::move(event)));
  } catch (...) {
    observers().failures.fetch_add(1, std::memory_order_relaxed);
  }
}

ZUEventDeferral::ZUEventDeferral() : outer_(tDeferral) { tDeferral = this; }

ZUEventDeferral::~ZUEventDeferral() {
  tDeferral = outer_;
  for (const ZUEvent& event : kept_) deliver(event);
}

}  // namespace ZU
