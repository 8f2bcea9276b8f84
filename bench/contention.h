#pragma once

namespace zubench {

/// What `contenders` threads did while they took turns on one resource.
struct ContentionResult {
  /// Process CPU time per second of wall time (1.0 is one core busy).
  double coreShare = 0;
  /// waitFor calls that returned with the resource, per second.
  double grantsPerSecond = 0;
  /// Longest time from a release to the next grant, milliseconds.
  double maxHandoverMs = 0;
  /// waitFor calls that ended in an error (time limit), in all.
  int errors = 0;
};

/// `contenders` threads each ask for one resource (with a limit of 1 s), hold
/// it `holdMs` ms and release it, over and over for `seconds`. The resource is
/// one plain resource, or with `groupMembers` > 0 a group of that many plain
/// members that every contender asks for.
ContentionResult measureContention(int contenders, int groupMembers, int holdMs, int seconds);

}  // namespace zubench
