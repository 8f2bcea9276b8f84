#include "scenario/sections.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace zusim {
namespace section {

namespace {

/// kill, cutOff and restartEtcd: the manager's actions on robots and etcd.
/// Returns false when `what` is none of them.
bool parseFleetAction(const Entry& e, Scenario& s, const std::string& what, ActionEntry a) {
  bool restart = what == "restartEtcd";
  if (!restart && what != "kill" && what != "cutOff") return false;
  for (const char* key : {"owner", "resource", "label", "timeout", "noWait", "activated"})
    if (e.has(key)) e.fail("\"" + what + "\" takes no \"" + key + "\"");
  if (what != "cutOff" && e.has("durationMs")) e.fail("only \"cutOff\" takes \"durationMs\"");
  if (!restart && e.has("downMs")) e.fail("only \"restartEtcd\" takes \"downMs\"");
  if (restart && e.has("robot")) e.fail("\"restartEtcd\" takes no \"robot\"");
  if (restart && !s.hasFleet()) e.fail("\"restartEtcd\" needs a fleet resource");
  if (!restart) a.robot = knownRobot(e, s, e.text("robot"));
  a.kind = restart ? ActionKind::EtcdDown : what == "kill" ? ActionKind::Kill : ActionKind::CutOff;
  if (a.kind != ActionKind::Kill)
    a.untilMs =
        a.atMs + (restart ? e.time("downMs", 0) : e.integer("durationMs", 0, 1, kMaxMs, true));
  s.actions.push_back(a);
  if (a.kind == ActionKind::Kill) return true;
  // The way back is an action of its own, at its time.
  a.kind = restart ? ActionKind::EtcdUp : ActionKind::Reconnect;
  a.atMs = a.untilMs;
  s.actions.push_back(a);
  return true;
}

}  // namespace

void parseAction(const Entry& e, Scenario& s) {
  static const std::pair<const char*, ActionKind> kKinds[] = {
      {"waitFor", ActionKind::WaitFor},           {"release", ActionKind::Release},
      {"switchOwner", ActionKind::SwitchOwner},   {"setState", ActionKind::SetState},
      {"releaseState", ActionKind::ReleaseState}, {"stop", ActionKind::Stop}};
  e.allow({"at", "do", "owner", "resource", "label", "timeout", "noWait", "activated", "robot",
           "durationMs", "downMs"});
  ActionEntry a;
  a.entry = e.where();
  a.atMs = e.time("at", 0, true);
  std::string what = e.text("do");
  if (parseFleetAction(e, s, what, a)) return;
  if (e.has("durationMs") || e.has("downMs"))
    e.fail("only \"cutOff\" and \"restartEtcd\" take \"durationMs\" and \"downMs\"");
  auto kind =
      std::find_if(std::begin(kKinds), std::end(kKinds),
                   [&](const std::pair<const char*, ActionKind>& k) { return what == k.first; });
  if (kind == std::end(kKinds))
    e.fail("unknown action " + quoteName(what) +
           " (waitFor, release, switchOwner, setState, releaseState, stop, kill, cutOff, "
           "restartEtcd)");
  a.kind = kind->second;
  int robot = robotOf(e, s);
  if (e.has("robot") && e.has("owner") && s.findOwner(e.text("owner")) &&
      s.findOwner(e.text("owner"))->robot != robot)
    e.fail("owner " + quoteName(e.text("owner")) + " is not of robot " +
           quoteName(e.text("robot")));
  const ResourceEntry& r = resolve(e, s, e.text("resource"), robot);
  a.resource = r.name;
  bool managerAction = a.kind == ActionKind::SetState || a.kind == ActionKind::ReleaseState;
  if (managerAction) {
    if (e.has("owner")) e.fail("\"" + what + "\" is the manager's; it has no \"owner\"");
    if (r.kind != ResourceKind::State)
      e.fail("\"" + what + "\" needs a state resource; " + quoteName(a.resource) + " is not one");
  } else {
    a.owner = e.text("owner");
    knownOwner(e, s, a.owner);
  }
  if (a.kind == ActionKind::SetState)
    a.activated = e.boolean("activated");
  else if (e.has("activated"))
    e.fail("only \"setState\" has \"activated\"");
  bool takesTimeout = a.kind == ActionKind::WaitFor || a.kind == ActionKind::SwitchOwner;
  if (!takesTimeout && (e.has("timeout") || e.has("label")))
    e.fail("only \"waitFor\" and \"switchOwner\" take \"timeout\" and \"label\"");
  if (a.kind != ActionKind::WaitFor && e.has("noWait")) e.fail("only \"waitFor\" takes \"noWait\"");
  a.label = e.optionalText("label");
  a.timeout = static_cast<int>(e.integer("timeout", -1, -1, kMaxTimeoutSeconds));
  a.noWait = e.texts("noWait");
  for (std::string& n : a.noWait) n = resolve(e, s, n, robot).name;
  s.actions.push_back(a);
}

}  // namespace section
}  // namespace zusim
