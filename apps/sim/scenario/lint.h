#pragma once

// Warnings that explain: what in a scenario will surely surprise its author,
// found before it runs.

#include <string>
#include <vector>

#include "scenario/scenario.h"

namespace zusim {

struct Warning {
  std::string entry;  // "actions[4]", "modules[1]"
  std::string text;   // what will happen, and why
};

/// The warnings of a valid scenario, in entry order:
/// - an owner that requests again after its own release, the manager's
///   stop, a group wait of its own that may time out, or its module letting
///   go when told "__onResource__" of what it holds: each leaves its release
///   flag set, so the next request that has to wait fails with "box stop
///   while waiting" (a group wait that is sure to be granted in time sets
///   nothing);
/// - a wait with no time limit for a resource that another owner takes
///   first and never lets go (no release, no stop) while its module ignores
///   "__onResource__": the wait never ends before stopAt;
/// - a module that no owner belongs to;
/// - two owners that may run at once taking shared members of groups in
///   opposite orders: each can hold one while it waits for the other.
std::vector<Warning> lint(const Scenario& scenario);

}  // namespace zusim
