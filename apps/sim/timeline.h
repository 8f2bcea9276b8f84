#pragma once

// The timeline's spans: holdings, waits and activations, opened and closed
// as the run sees them happen.

#include <mutex>
#include <string>
#include <vector>

#include "runrecord.h"

namespace zusim {

/// Collects the spans of one run.
///
/// Thread safety: thread safe; every operation takes the timeline's mutex,
/// which is taken after the library's locks and before the event log's.
class Timeline {
 public:
  /// `owner` begins to hold `resource`.
  void holds(const std::string& resource, const std::string& owner, long ms);
  /// `owner` no longer holds `resource`.
  void letsGo(const std::string& resource, const std::string& owner, long ms);
  /// A state resource is activated (`on`) or deactivated.
  void activated(const std::string& resource, bool on, long ms);
  /// `owner` (empty: a deactivation of `resource`) begins to wait on `holder`.
  void waits(const std::string& resource, const std::string& owner, const std::string& holder,
             long ms);
  /// Ends the oldest open wait on `holder` that `matches`; false when none.
  template <typename Match>
  bool waitEnds(const std::string& holder, long ms, Match matches) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (Span& w : waits_)
      if (w.holder == holder && w.toMs < 0 && matches(w)) {
        w.toMs = ms;
        return true;
      }
    return false;
  }
  /// Ends every open wait of `owner`; returns the resource of the last one,
  /// or `fallback` when none was open.
  std::string waitsEnd(const std::string& owner, long ms, const std::string& fallback);
  /// The leaves of `leaves` that `owner` held at `sinceMs` or later.
  std::vector<std::string> heldSince(const std::string& owner,
                                     const std::vector<std::string>& leaves, long sinceMs) const;
  /// Ends every open span at `endMs` and copies the spans into `record`.
  void close(long endMs, RunRecord& record);

 private:
  static void end(std::vector<Span>& spans, const std::string& resource, const std::string& owner,
                  long ms);

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::vector<Span> holdings_;
  std::vector<Span> waits_;
  std::vector<Span> activations_;
};

}  // namespace zusim
