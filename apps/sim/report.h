#pragma once

// The HTML report of a run: a timeline chart drawn as inline SVG, the
// expectations, the event log and the final status page, in one file.

#include <string>
#include <vector>

#include "eventlog.h"
#include "html.h"
#include "runrecord.h"
#include "scenario.h"

namespace zusim {

/// The whole report as one self-contained HTML document.
std::string renderReport(const Scenario& scenario, const std::vector<Event>& events,
                         const RunRecord& record);
/// The timeline alone: one lane per plain or state resource, a bar per
/// holding coloured by owner, a paler dashed bar per wait, marks for
/// notifications, hand-overs, give-ups, timeouts and stops, and a dashed line
/// across the lanes when a deadlock or a stale wait is reported.
std::string renderTimeline(const Scenario& scenario, const std::vector<Event>& events,
                           const RunRecord& record);
/// Writes renderReport() to `path`; false when the file cannot be written.
bool writeReport(const std::string& path, const Scenario& scenario,
                 const std::vector<Event>& events, const RunRecord& record);

}  // namespace zusim
