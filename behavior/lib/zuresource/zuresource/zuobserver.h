#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zuresource/zuwaitregistry.h>

namespace ZU {

class ZUOwner;

/// One decision of the arbitration, as an observer receives it. Which fields
/// are filled depends on `kind` (see Kind); the others stay empty, zero or
/// None.
///
/// Thread safety: a plain value; concurrent reads are safe.
struct ZUEvent {
  enum class Kind {
    Requested,         ///< owner asks for resource (label, timeout, noWaitList)
    Waiting,           ///< owner waits behind holder for resource (timeout)
    Notified,          ///< holderModule was told "__onResource__" for resource
    Granted,           ///< owner holds resource now (grant: how; parent: who handed it down)
    HandedBack,        ///< owner let go of resource; it went back to parent
    Released,          ///< owner let go of resource; it is free now
    GivenBack,         ///< a group wait failed (reason) and owner was given back from resource
    NotObtained,       ///< resource busy and in the no-wait list: owner gave up at once
    TimedOut,          ///< owner's wait behind holder for resource passed its time limit
    Stopped,           ///< owner's wait behind holder ended without the resource (cause)
    StateActivated,    ///< the state resource was activated
    StateDeactivated,  ///< the state resource was deactivated
    Switched,          ///< owner was made the holder of resource unconditionally
    DeadlockFormed,    ///< the waits of `waits` form a cycle since `since`
    DeadlockBroken,    ///< the cycle of `waits` (formed at `since`) no longer stands
    StaleWait,         ///< the wait `waits[0]` waits on a holder that has not held
                       ///< resource since `since`
    Lost               ///< owner lost resource for `reason` (emitted outside the library)
  };
  /// How a Granted resource was obtained.
  enum class Grant { None, WasFree, HandedDown, AlreadyHeld, StateActivated };
  /// Why a wait Stopped.
  enum class Cause {
    None,
    OwnRelease,   ///< the owner's release flag was already set when its wait began
    ManagerStop,  ///< the owner's release flag was set during its wait (a release
                  ///< by the manager ends a pending wait)
    Destruction   ///< the holder was destroyed while owners waited on it
  };

  Kind kind = Kind::Requested;
  /// When it happened (steady clock).
  std::chrono::steady_clock::time_point time;
  /// Orders all events of the process: a later event has a larger number.
  std::uint64_t sequence = 0;
  /// The thread that caused it (and in which observers are called).
  std::thread::id thread;

  std::string resource;
  std::string owner;
  std::string ownerModule;
  /// Waiting, Notified, TimedOut, Stopped, NotObtained: the owner waited on.
  std::string holder;
  std::string holderModule;
  /// Granted (HandedDown): the owner that handed it down; HandedBack: the
  /// owner it went back to.
  std::string parent;
  /// Requested: the caller's label.
  std::string label;
  /// Requested, Waiting, TimedOut: the time limit in seconds, negative for none.
  int timeout = 0;
  /// Requested: the no-wait list.
  std::vector<std::string> noWaitList;
  Grant grant = Grant::None;
  Cause cause = Cause::None;
  /// GivenBack: the error that failed the group wait, or "abort requested";
  /// Lost: why.
  std::string reason;
  /// DeadlockFormed/Broken: the cycle's edges in cycle order; StaleWait: the
  /// stale wait alone.
  std::vector<ZUWait> waits;
  /// DeadlockFormed/Broken: when the cycle formed (its newest edge began);
  /// StaleWait: since when the holder was seen not holding.
  std::chrono::steady_clock::time_point since;

  /// An event of `kind` about `owner` (may be null) and `resource`, not yet
  /// stamped.
  static ZUEvent make(Kind kind, const std::string& resource, const ZUOwner* owner);
};

/// The name of `kind` as the JSON form writes it ("requested", "waiting", …).
const char* kindName(ZUEvent::Kind kind);
/// "none", "wasFree", "handedDown", "alreadyHeld", "stateActivated".
const char* grantName(ZUEvent::Grant grant);
/// "none", "ownRelease", "managerStop", "destruction".
const char* causeName(ZUEvent::Cause cause);

/// Receives the events of the process's arbitration.
///
/// Thread safety: onEvent is called from any thread that causes an event, so
/// an observer must be thread safe; it runs in that thread, and the decision
/// it reports waits for it, so it should be quick.
///
/// Contract of the calls: an observer is called with no lock of the library
/// held that a report or a snapshot takes, so it may call back into the
/// library (httpGet, ownersGet, takeSnapshot). The events of a running
/// conflict wait (Waiting, Notified, TimedOut, Stopped, DeadlockFormed,
/// DeadlockBroken, StaleWait) are delivered from inside that wait, whose
/// thread holds what the wait holds throughout: the resource's waitMutex
/// (taken only by waitFor: an observer must not wait for that resource), the
/// holder's conflictMutex shared (taken exclusively only by the holder's
/// destructor: an observer must not drop the last handle of that holder) and,
/// for a member of a group, the group's resourceListMutex shared (an observer
/// must not change that group). Events caused under a state resource's own
/// locks (its deactivation tells the holders) are delivered once they are let
/// go. An exception thrown by onEvent is caught and counted
/// (ZUObservers::failures), never passed on.
class ZUObserver {
 public:
  virtual ~ZUObserver() = default;
  virtual void onEvent(const ZUEvent& event) = 0;
};

/// The process-wide list of observers, and the way events reach them.
///
/// Thread safety: thread safe. The list is copied on write: a mutex guards
/// the current copy, each event takes a reference to it and delivers with no
/// lock held. Each registration counts the deliveries in flight to it in an
/// atomic, so that remove() can wait for them. With no observer registered an event site
/// costs one relaxed atomic load (active()).
class ZUObservers {
 public:
  /// Registers `observer` (a null handle is ignored; registering one twice
  /// delivers each event twice). It receives the events that start after
  /// this returns. Takes: the list mutex.
  static void add(const boost::shared_ptr<ZUObserver>& observer);
  /// Unregisters every registration of `observer`; returns whether there was
  /// one. On return no event will reach it, and every delivery to it that was
  /// running has ended, except those running in the calling thread (removal
  /// from inside the observer's own onEvent does not wait for itself).
  /// Takes: the list mutex, then each registration's mutex while it waits.
  static bool remove(const boost::shared_ptr<ZUObserver>& observer);
  /// Whether any observer is registered. One relaxed atomic load.
  static bool active() { return count_.load(std::memory_order_relaxed) != 0; }
  /// Stamps `event` (time, sequence, thread) unless it has a sequence
  /// already, then delivers it to every observer in registration order.
  /// Never throws. For code built on the library (a fleet layer emits Lost
  /// this way) as well as the library's own event sites. Takes: the list
  /// mutex while copying the list.
  static void emit(ZUEvent event) noexcept;
  /// Sets time, a new sequence number and the calling thread.
  static void stamp(ZUEvent& event);
  /// How many exceptions observers have thrown so far, plus the events
  /// dropped because they could not be built (no memory).
  static std::uint64_t failures();
  /// Counts one dropped event in failures().
  static void noteFailure() noexcept;

  ZUObservers() = delete;

 private:
  /// Atomic: the number of registrations.
  static std::atomic<int> count_;
};

/// An event to deliver once the caller's locks are dropped: declared before
/// the lock guards of a scope, it delivers on leaving that scope, after they
/// are let go. set() stamps the event at once (its time and place in the
/// order are those of the decision).
///
/// Thread safety: one object per thread (a local).
class ZUPendingEvent {
 public:
  ZUPendingEvent() = default;
  ~ZUPendingEvent() {
    if (event_) ZUObservers::emit(std::move(*event_));
  }
  ZUPendingEvent(const ZUPendingEvent&) = delete;
  ZUPendingEvent& operator=(const ZUPendingEvent&) = delete;

  /// Keeps `event`, stamped now, replacing any kept one. Never throws (an
  /// event that cannot be kept is dropped and counted as a failure).
  void set(ZUEvent event) noexcept;
  /// The kept event, or null.
  ZUEvent* get() { return event_.get(); }

 private:
  /// On the heap, and only once an event is kept: the handle alone costs
  /// nothing on the paths that run with no observer (an inline event would be
  /// cleared on every call).
  std::unique_ptr<ZUEvent> event_;
};

/// While one lives in a thread, the events that thread emits are kept and
/// delivered when the outermost one ends: for code that calls into owners
/// with a lock held that a report takes (a state's deactivation holds its
/// holders' lock while it tells them).
///
/// Thread safety: one object per thread (a local); the kept events are the
/// thread's own.
class ZUEventDeferral {
 public:
  ZUEventDeferral();
  ~ZUEventDeferral();
  ZUEventDeferral(const ZUEventDeferral&) = delete;
  ZUEventDeferral& operator=(const ZUEventDeferral&) = delete;

 private:
  friend class ZUObservers;
  /// This thread's own: the events kept (outermost deferral only).
  std::vector<ZUEvent> kept_;
  /// This thread's own: the enclosing deferral, or null.
  ZUEventDeferral* outer_;
};

}  // namespace ZU
