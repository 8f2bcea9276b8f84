#pragma once

// Replay: a recording of the library's events (JSON lines, the recorder's
// format) turned back into a scenario, run again, and its decisions compared
// with the recorded ones.

#include <istream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "run/eventlog.h"
#include "run/runrecord.h"
#include "scenario/scenario.h"

namespace zusim {

/// One recorded event, as far as replay needs it.
struct RecordedEvent {
  std::size_t line = 0;  // in the recording, from 1; 0 for a replayed event
  double ms = 0;
  std::string kind;  // "requested", "granted", ...
  std::string thread;
  std::string resource, owner, ownerModule, holder, holderModule, parent;
  std::string grant, cause, label, reason;
  int timeout = -1;
  std::vector<std::string> noWait;
};

/// A recording read back. A recording cut off in the middle (its last line
/// incomplete) keeps what came before the cut.
struct Recording {
  std::string file;
  std::string wallClock;                       // when it started
  nlohmann::json firstSnapshot, lastSnapshot;  // null when there is none
  std::vector<RecordedEvent> events;           // in line order
  bool cut = false;
  std::size_t cutLine = 0;  // the line that is incomplete
  double cutMs = 0;         // the latest time of the whole events before it

  /// Reads `path`. Throws ScenarioError naming the file, the line and the
  /// field of what a recorder cannot have written or a scenario cannot
  /// carry: a line that is not a JSON object, a field of the wrong type, an
  /// unknown kind, times going back or past the simulator's hour, a time
  /// limit past its hour, empty names, a snapshot's group inside itself or
  /// nested too deep. A cut last line is not an error.
  static Recording read(const std::string& path);
  /// The same from a stream; `file` names it in messages.
  static Recording parse(std::istream& in, const std::string& file);
  /// The recording as a scenario: its resources (from the first snapshot,
  /// and any other resource its events name, plain unless switched on or
  /// off), modules and owners; every top-level request, release, switch,
  /// state change and stop of the manager at its recorded time; a module
  /// that let go after "__onResource__" answers so with its median delay;
  /// expectations from the recorded outcomes and, unless cut, final holders.
  nlohmann::ordered_json toScenario() const;
};

/// The decisions about owners (granted, waiting behind whom, not obtained,
/// timed out, stopped, given back, handed back, released) compared owner by
/// owner. Empty when they agree; otherwise the earliest recorded point where
/// they differ, with both sides. Replayed events later than a cut are left
/// out.
std::string firstDivergence(const Recording& recorded, const std::vector<RecordedEvent>& replayed);

/// Runs `scenario` (a recording's, see toScenario) and returns the library's
/// events of the run, timed from the run's start; `log` gets the text log and
/// `record` what the run leaves.
std::vector<RecordedEvent> replay(const Scenario& scenario, EventLog& log, RunRecord& record);

}  // namespace zusim
