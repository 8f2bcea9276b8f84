#pragma once

// The library's own event sites: each builds an event and emits it, or keeps
// it in a ZUPendingEvent. None throws: an event that cannot be built is
// dropped and counted as a failure. Call them only when ZUObservers::active().
// Not installed: for the library's sources only.

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <zuresource/zuobserver.h>

namespace ZU {

class ZUResource;

namespace eventsite {

/// Emits an event of `kind` about `owner` and `resource`, with `holder` (may
/// be null) as the owner waited on.
void emit(ZUEvent::Kind kind, const std::string& resource, const ZUOwner* owner,
          const ZUOwner* holder = nullptr) noexcept;
/// Emits Requested.
void requested(const std::string& resource, const ZUOwner& owner, const std::string& label,
               int timeout, const std::vector<std::string>& noWaitList) noexcept;
/// Keeps Granted (how: `grant`; `parent` may be null) in `pending`.
void granted(ZUPendingEvent& pending, const std::string& resource, const ZUOwner& owner,
             ZUEvent::Grant grant, const ZUOwner* parent) noexcept;
/// Keeps `kind` (Released, HandedBack: `parent` may be null) in `pending`.
void keep(ZUPendingEvent& pending, ZUEvent::Kind kind, const std::string& resource,
          const ZUOwner* owner, const ZUOwner* parent = nullptr) noexcept;
/// Keeps GivenBack with `reason` in `pending`.
void givenBack(ZUPendingEvent& pending, const std::string& resource, const ZUOwner& owner,
               const std::string& reason) noexcept;
/// Emits Stopped with `cause`.
void stopped(const std::string& resource, const ZUOwner* owner, const ZUOwner& holder,
             ZUEvent::Cause cause) noexcept;
/// Emits Waiting or TimedOut with the time limit.
void waitEvent(ZUEvent::Kind kind, const std::string& resource, const ZUOwner& owner,
               const ZUOwner& holder, int timeout) noexcept;

/// Names, for the running thread, the resource whose holder the next
/// conflict wait of this thread waits on, so that the wait's polls can judge
/// whether it has gone stale. Does nothing unless observers are registered.
class WaitingOn {
 public:
  explicit WaitingOn(ZUResource* resource);
  ~WaitingOn();
  WaitingOn(const WaitingOn&) = delete;
  WaitingOn& operator=(const WaitingOn&) = delete;

 private:
  bool set_ = false;
  ZUResource* outer_ = nullptr;
};

/// Watches one running conflict wait from its own polls: at each poll
/// (while observers are registered) whether the wait closes a cycle of waits
/// and whether it has gone stale; when it ends, the cycles it was part of are
/// broken. Lives in the waiting thread, inside the wait's registry record.
class WaitWatch {
 public:
  /// Watches the wait `waitId` (0: unrecorded, nothing to watch) on `holder`.
  WaitWatch(std::uint64_t waitId, const ZUOwner& holder);
  ~WaitWatch();
  WaitWatch(const WaitWatch&) = delete;
  WaitWatch& operator=(const WaitWatch&) = delete;

  /// One poll's checks. Never throws.
  void poll() noexcept;

 private:
  const std::uint64_t waitId_;  // 0 when the wait went unrecorded
  const ZUOwner& holder_;       // alive: the wait runs inside its conflict()
  ZUResource* resource_;        // from WaitingOn; may be null
  /// When a poll first saw the holder not holding the resource, since the
  /// last poll that saw it holding; empty while it holds.
  std::chrono::steady_clock::time_point notHoldingSince_;
  bool stale_ = false;  // reported
};

}  // namespace eventsite

/// The cycles and stale waits reported so far that still stand, and the
/// hand-downs seen while observers were registered: (owner, resource) ->
/// the owner that handed it down. Takes: the reports' own mutex.
void currentDiagnostics(std::vector<ZUEvent>& cycles, std::vector<ZUEvent>& staleWaits,
                        std::map<std::pair<std::string, std::string>, std::string>& parents);

}  // namespace ZU
