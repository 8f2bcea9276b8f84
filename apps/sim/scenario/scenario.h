#pragma once

// The scenario model: what a scenario file declares, checked as a whole
// before anything runs.

#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

#include <zumanager/zuinputerror.h>
#include <zumanager/zuresourcetree.h>

namespace zusim {

/// The latest time a scenario may name, in ms (one hour): `at`, `stopAt`,
/// `delay` and an expectation's `at`.
const long kMaxMs = 3600 * 1000;
/// The longest time limit of a request, in seconds (one hour); -1 is none.
const long kMaxTimeoutSeconds = 3600;
/// How deep groups may nest: a group of plain resources is one level.
const int kMaxNesting = ZU::kMaxTreeNesting;
/// A robot's fleet lease lives this long without renewal, in seconds, unless
/// the scenario or the robot says otherwise; short, so that a scenario that
/// kills a robot runs in a few seconds.
const long kDefaultTtlSeconds = 2;
using ZU::kRobotSeparator;

using ZU::escapeControls;
using ZU::quoteName;

using ResourceKind = ZU::ZUTreeKind;

/// One robot of a scenario with robots: its own broker, modules, owners and
/// resources; those that are fleet resources it shares with the other robots.
struct RobotEntry {
  std::string name;
  long ttlSeconds = kDefaultTtlSeconds;  // its fleet lease's time to live
};

/// A resource. In a scenario with robots, `name` is "robot/name" and `robot`
/// its robot's number; else `robot` is -1.
using ResourceEntry = ZU::ZUTreeResource;

/// How a module answers "__onResource__": it ignores it, or the owner of the
/// module that holds the wanted resource lets go after `delayMs`.
struct ModuleEntry {
  std::string name;
  int robot = -1;
  bool releases = false;
  long delayMs = 0;
};

struct OwnerEntry {
  std::string name;  // hierarchical: "dance/wave" extends "dance"
  std::string module;
  int robot = -1;
};

/// Kill, CutOff and its Reconnect, and EtcdDown and its EtcdUp (the two
/// halves of "restartEtcd") are the manager's too.
enum class ActionKind {
  WaitFor,
  Release,
  SwitchOwner,
  SetState,
  ReleaseState,
  Stop,
  Kill,
  CutOff,
  Reconnect,
  EtcdDown,
  EtcdUp
};

/// One step of the timeline. WaitFor, Release and SwitchOwner run in the
/// owner's own thread; SetState, ReleaseState and Stop (the manager makes the
/// owner give the resource up, ending its wait) run in the manager's thread.
struct ActionEntry {
  std::string entry;  // "actions[3]", for messages
  long atMs = 0;
  ActionKind kind = ActionKind::WaitFor;
  std::string owner;  // empty for SetState and ReleaseState
  std::string resource;
  std::string label;
  int timeout = -1;  // seconds, -1: no limit
  std::vector<std::string> noWait;
  bool activated = false;  // SetState
  int robot = -1;          // Kill, CutOff, Reconnect
  long untilMs = 0;        // CutOff, EtcdDown: when the way back comes
};

/// How a request ends: granted, not obtained (busy, on its no-wait list),
/// timed out, stopped (its release flag was set), or failed otherwise.
enum class OutcomeKind { Granted, NotObtained, TimedOut, Stopped, Failed };

/// "granted", "not obtained", "timed out", "stopped", "failed".
const char* outcomeName(OutcomeKind kind);

enum class ExpectKind {
  Holder,
  Holders,
  Activated,
  Outcome,
  Notified,
  Deadlock,
  StaleWait,
  WaitedBehind,
  MaxWait,
  NotifiedTimes,
  GrantedAt
};

/// One expectation, checked at `atMs` or, when `atMs` is negative, once the
/// scenario is over. A Deadlock or StaleWait expectation asks whether one was
/// reported by then (at any time of the run when checked at the end).
struct ExpectEntry {
  std::string entry;  // "expect[2]"
  long atMs = -1;
  ExpectKind kind = ExpectKind::Holder;
  std::string resource;            // Holder, Holders, Activated; optional for the others
  std::string owner;               // Outcome
  std::string module;              // Notified
  std::string holder;              // Holder: an owner name, or "emptyOwner" for free;
                                   // WaitedBehind: the owner waited behind
  std::vector<std::string> names;  // Holders, Notified, Outcome's notObtained;
                                   // Deadlock, StaleWait: the owners involved, if given
  bool activated = false;
  OutcomeKind outcome = OutcomeKind::Granted;
  bool checkNames = false;  // Outcome: "notObtained" was given
  std::string error;        // Outcome: exact error description, if given
  bool reported = false;    // Deadlock, StaleWait: whether one is expected
  // WaitedBehind, MaxWait, GrantedAt: the leaves of `resource` (every one when empty).
  std::vector<std::string> leaves;
  long count = 0;  // MaxWait: the longest wait in ms; NotifiedTimes: how many times
  // GrantedAt: when the grant may come; Deadlock, StaleWait: the window a
  // report counts in (the whole run by default). Both ends included.
  long fromMs = 0;
  long toMs = kMaxMs;
};

/// The resources, with their lookups, are the scenario's resource tree.
struct Scenario : ZU::ZUResourceTree {
  std::string file;
  std::string title;
  std::string description;
  long stopAtMs = 0;               // owners still waiting then are stopped by the manager
  std::vector<RobotEntry> robots;  // empty: one robot, its entries at the top
  std::vector<ModuleEntry> modules;
  std::vector<OwnerEntry> owners;
  std::vector<ActionEntry> actions;
  std::vector<ExpectEntry> expectations;

  const OwnerEntry* findOwner(const std::string& name) const;
  const ModuleEntry* findModule(const std::string& name) const;
  /// The name of the resource that robot number `robot` calls `name` in the
  /// library ("robot/name"; `name` itself without robots or for a resource
  /// of the scenario's own name).
  std::string resourceOf(int robot, const std::string& name) const;

  // Name -> position in the lists above; filled in as entries are read.
  std::unordered_map<std::string, std::size_t> moduleIndex;
  std::unordered_map<std::string, std::size_t> ownerIndex;
};

/// A scenario refused before it runs; the message names the file, the entry
/// and what is wrong.
using ScenarioError = ZU::ZUInputError;

/// Parses and checks `text`; `file` names it in messages. Throws ScenarioError.
Scenario parseScenario(const std::string& text, const std::string& file);
/// Reads and parses the regular file at `path`. Throws ScenarioError.
Scenario loadScenario(const std::string& path);

}  // namespace zusim
