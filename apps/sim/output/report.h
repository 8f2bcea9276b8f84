#pragma once

// The HTML report of a run: a timeline chart drawn as inline SVG, the
// expectations, the event log and the final status page, in one file.

#include <string>
#include <vector>

#include "run/eventlog.h"
#include "output/html.h"
#include "run/runrecord.h"
#include "scenario/scenario.h"

namespace zusim {

/// The whole report as one self-contained HTML document: it fetches nothing.
/// Owners are told apart by colour and, past the palette's first twelve, a
/// pattern; past 30 owners the legend is a searchable list. Hovering a bar
/// or a legend entry picks out all of that owner's bars.
std::string renderReport(const Scenario& scenario, const std::vector<Event>& events,
                         const RunRecord& record);
/// The timeline alone: one lane per plain or state resource, a bar per
/// holding coloured by owner, a paler dashed bar per wait, marks for
/// notifications, hand-overs, give-ups, timeouts and stops, and a dashed line
/// across the lanes when a deadlock or a stale wait is reported. Holdings that
/// overlap (a state resource's holders) and waits that overlap are stacked in
/// sub-lanes of their lane, never drawn over each other. The lane labels stay
/// put while the time axis zooms (renderReport's script).
std::string renderTimeline(const Scenario& scenario, const std::vector<Event>& events,
                           const RunRecord& record);

}  // namespace zusim
