#pragma once

// The timeline's spans: holdings, waits and activations, opened and closed
// by the library's events, at the times the library stamped them.

#include <mutex>
#include <string>
#include <vector>

#include <zuresource/zuobserver.h>

#include "run/runrecord.h"
#include "scenario/scenario.h"

namespace zusim {

/// Collects the spans of one run.
///
/// Thread safety: thread safe; every operation takes the timeline's mutex,
/// which is taken after the library's locks and before the event log's.
class Timeline {
 public:
  /// `scenario` must outlive the timeline.
  explicit Timeline(const Scenario& scenario) : scenario_(scenario) {}

  /// Opens or closes the spans that `event`, of one of the scenario's
  /// resources, stands for; `ms` is its time. A wait that restarts on the
  /// same holder goes on; a plain resource has one holder at a time.
  /// Returns false for a Waiting event of a wait that goes on.
  bool record(const ZU::ZUEvent& event, long ms);
  /// A state resource is activated (`on`) or deactivated.
  void activated(const std::string& resource, bool on, long ms);
  /// Ends every open wait of `owner`; returns the resource of the last one,
  /// or `fallback` when none was open.
  std::string waitsEnd(const std::string& owner, long ms, const std::string& fallback);
  /// The leaves of `leaves` that `owner` held at `sinceMs` or later.
  std::vector<std::string> heldSince(const std::string& owner,
                                     const std::vector<std::string>& leaves, long sinceMs) const;
  /// The waits and the holdings so far; those still running have a negative `toMs`.
  std::vector<Span> waits() const;
  std::vector<Span> holdings() const;
  /// Ends every open span at `endMs` and copies the spans into `record`.
  void close(long endMs, RunRecord& record);

 private:
  /// Ends the open spans on `resource` of `owner`, or of anyone when `owner`
  /// is null; of waits, only those on `holder` unless it is null. mutex_ held.
  static void end(std::vector<Span>& spans, const std::string& resource, const std::string* owner,
                  const std::string* holder, long ms);

  const Scenario& scenario_;
  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::vector<Span> holdings_;
  std::vector<Span> waits_;
  std::vector<Span> activations_;
};

}  // namespace zusim
