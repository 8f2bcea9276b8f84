#pragma once

// What a run leaves behind and what the live page may ask of a run while it
// lasts: the report and the server know these, not the runner.

#include <string>
#include <vector>

#include "run/expectations.h"

namespace zusim {

/// Everything a run leaves behind for the report.
struct RunRecord {
  std::vector<Span> holdings;
  std::vector<Span> waits;
  std::vector<Span> activations;
  std::vector<ExpectResult> results;
  std::vector<std::string> finalStatus;  // httpGet(0) of every root resource
  long endMs = 0;
  bool allHeld() const;
};

/// The waits running now and what is wrong with them, as lines of text for
/// the live page.
struct Diagnostics {
  std::vector<std::string> waits;       // oldest first, as the library words them
  std::vector<std::string> deadlocks;   // the cycles among them
  std::vector<std::string> staleWaits;  // as of the last check
};

/// What the live page asks of a running scenario.
///
/// Thread safety: every query may be called from any thread at any time,
/// also while the scenario runs.
class RunView {
 public:
  virtual ~RunView() = default;
  /// The status page: each root resource's httpGet(0), as the library renders it.
  virtual std::vector<std::string> statusLines() = 0;
  /// The waits running now, the deadlocks among them and the stale waits of
  /// the last check.
  virtual Diagnostics diagnostics() = 0;
  /// What waitFor(owner, resource) with no no-wait list would do now, with
  /// no side effect, in one line. Throws std::invalid_argument naming an
  /// unknown owner or resource.
  virtual std::string explain(const std::string& owner, const std::string& resource) = 0;
};

}  // namespace zusim
