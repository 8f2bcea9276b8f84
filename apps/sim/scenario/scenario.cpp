#include "scenario/scenario.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <tuple>
#include <unordered_set>

#include <nlohmann/json.hpp>

#include <zumanager/zujsonreader.h>
#include <zumanager/zuresourcetreereader.h>
#include <zuresource/zucontract.h>

namespace zusim {

namespace {

using nlohmann::json;

/// An entry of a scenario: its times are from 0 to kMaxMs.
class Entry : public ZU::ZUJsonEntry {
 public:
  using ZUJsonEntry::ZUJsonEntry;
  explicit Entry(const ZUJsonEntry& e) : ZUJsonEntry(e) {}

  /// A time in ms, from 0 to kMaxMs.
  long time(const char* key, long fallback, bool required = false) const {
    return ZUJsonEntry::time(key, fallback, kMaxMs, required);
  }
  /// A pair [lo, hi] of times in ms, lo <= hi.
  std::pair<long, long> timeRange(const char* key) const {
    return ZUJsonEntry::timeRange(key, kMaxMs);
  }
};

/// Calls `each` with an Entry for every element of the array `key` of `top`.
/// `within` names `top` in messages ("robots[1]."), empty for the whole.
/// The elements are freed once read: a large scenario is never held twice.
void forEach(json& top, const char* key, const std::string& file,
             const std::function<void(const Entry&)>& each, const std::string& within = "") {
  ZU::consumeEachEntry(
      top, key, file, [&](const ZU::ZUJsonEntry& e) { each(Entry(e)); }, within);
}

using ZU::knownResource;

std::string qualified(const Scenario& s, int robot, const std::string& name) {
  return robot < 0 ? name : s.robots[robot].name + kRobotSeparator + name;
}

/// Appends `item` to `items` and indexes it by name; refuses a name declared
/// before.
template <typename T>
void declare(const Entry& e, const char* what, T item, std::vector<T>& items,
             std::unordered_map<std::string, std::size_t>& index) {
  if (!index.emplace(item.name, items.size()).second)
    e.fail(std::string(what) + " " + quoteName(item.name) + " declared twice");
  items.push_back(std::move(item));
}

void parseModule(const Entry& e, Scenario& s, int robot) {
  e.allow({"name", "onResource", "delay"});
  ModuleEntry m;
  m.name = e.name("name", "module");
  m.robot = robot;
  std::string answer = e.text("onResource", "release", false);
  if (answer == "release") {
    m.releases = true;
    m.delayMs = e.time("delay", 0);
  } else if (answer == "ignore") {
    if (e.has("delay")) e.fail("a module that ignores \"__onResource__\" has no \"delay\"");
  } else {
    e.fail("\"onResource\" must be \"release\" or \"ignore\", not " + quoteName(answer));
  }
  declare(e, "module", std::move(m), s.modules, s.moduleIndex);
}

void parseOwner(const Entry& e, Scenario& s, int robot) {
  e.allow({"name", "module"});
  OwnerEntry o;
  o.name = e.name("name", "owner");
  o.module = e.text("module");
  o.robot = robot;
  if (o.name == ZU::contract::kPlaceholderName)
    e.fail(quoteName(o.name) + " is the placeholder's name");
  if (!s.findModule(o.module)) e.fail("unknown module " + quoteName(o.module));
  if (s.findModule(o.module)->robot != robot)
    e.fail("module " + quoteName(o.module) + " belongs to another robot");
  declare(e, "owner", std::move(o), s.owners, s.ownerIndex);
}

void knownOwner(const Entry& e, const Scenario& s, const std::string& name) {
  if (!s.findOwner(name)) e.fail("unknown owner " + quoteName(name));
}

int knownRobot(const Entry& e, const Scenario& s, const std::string& name) {
  for (std::size_t i = 0; i < s.robots.size(); ++i)
    if (s.robots[i].name == name) return static_cast<int>(i);
  e.fail("unknown robot " + quoteName(name));
}

/// The robot an entry speaks of: its "robot", else that of its "owner" or
/// "module", else -1 (any).
int robotOf(const Entry& e, const Scenario& s) {
  const json& value = e.value();
  if (e.has("robot")) return knownRobot(e, s, e.text("robot"));
  auto of = [&](const char* key, auto find) {
    const json* v = value.contains(key) ? &value.at(key) : nullptr;
    auto* found = v && v->is_string() ? (s.*find)(v->get<std::string>()) : nullptr;
    return found ? found->robot : -1;
  };
  int robot = of("owner", &Scenario::findOwner);
  return robot >= 0 ? robot : of("module", &Scenario::findModule);
}

/// The resource an entry names: in a scenario with robots, `name` of the
/// entry's robot, or of the one robot that has a resource so named; a name
/// "robot/name" always does.
const ResourceEntry& resolve(const Entry& e, const Scenario& s, const std::string& name,
                             int robot) {
  if (s.robots.empty() || s.findResource(name)) return knownResource(e, s, name);
  if (robot >= 0) return knownResource(e, s, qualified(s, robot, name));
  const ResourceEntry* found = nullptr;
  for (std::size_t i = 0; i < s.robots.size(); ++i)
    if (const ResourceEntry* r = s.findResource(qualified(s, static_cast<int>(i), name))) {
      if (found)
        e.fail("robots " + quoteName(s.robots[found->robot].name) + " and " +
               quoteName(s.robots[i].name) + " both have " + quoteName(name) +
               ": say which with \"robot\"");
      found = r;
    }
  if (!found) e.fail("unknown resource " + quoteName(name));
  return *found;
}

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

/// {"deadlock": true|false} or {"staleWait": true|false}, optionally narrowed
/// to the owners involved and a resource waited for.
void parseDiagnosis(const Entry& e, const Scenario& s, ExpectEntry& x, int robot) {
  if (e.has("deadlock") && e.has("staleWait")) e.fail("one of \"deadlock\" and \"staleWait\"");
  x.kind = e.has("deadlock") ? ExpectKind::Deadlock : ExpectKind::StaleWait;
  x.reported = e.boolean(e.has("deadlock") ? "deadlock" : "staleWait");
  if (e.has("owner")) e.fail("a deadlock or a stale wait takes \"owners\", a list");
  x.names = e.texts("owners");
  if (e.has("owners") && x.names.empty()) e.fail("\"owners\" names no owner");
  for (const std::string& n : x.names) knownOwner(e, s, n);
  x.resource = e.optionalText("resource");
  if (!x.resource.empty()) x.resource = resolve(e, s, x.resource, robot).name;
  if (!x.resource.empty() && knownResource(e, s, x.resource).kind == ResourceKind::Group)
    e.fail("waits are on plain and state resources; " + quoteName(x.resource) + " is a group");
  x.fromMs = e.time("from", 0);
  x.toMs = e.time("to", kMaxMs);
  if (x.fromMs > x.toMs) e.fail("\"from\" is after \"to\"");
}

/// The expectations on an owner's or a module's history over the run:
/// waitedBehind, maxWaitMs, notifiedTimes, grantedAtMs. Returns false when
/// `e` is none of them.
bool parseHistory(const Entry& e, const Scenario& s, ExpectEntry& x, int robot) {
  if (e.has("notifiedTimes")) {
    x.kind = ExpectKind::NotifiedTimes;
    x.module = e.text("module");
    if (!s.findModule(x.module)) e.fail("unknown module " + quoteName(x.module));
    x.count = e.integer("notifiedTimes", 0, 0, kMaxMs, true);
  } else if (e.has("waitedBehind")) {
    x.kind = ExpectKind::WaitedBehind;
    x.owner = e.name("owner", "owner");
    knownOwner(e, s, x.owner);
    x.holder = e.name("waitedBehind", "owner");
    knownOwner(e, s, x.holder);
  } else if (e.has("maxWaitMs")) {
    x.kind = ExpectKind::MaxWait;
    x.count = e.time("maxWaitMs", 0, true);
  } else if (e.has("grantedAtMs")) {
    x.kind = ExpectKind::GrantedAt;
    x.owner = e.name("owner", "owner");
    knownOwner(e, s, x.owner);
    std::tie(x.fromMs, x.toMs) = e.timeRange("grantedAtMs");
  } else {
    return false;
  }
  if (x.kind == ExpectKind::MaxWait || (x.kind != ExpectKind::NotifiedTimes && e.has("resource"))) {
    x.resource = resolve(e, s, e.text("resource"), robot).name;
    x.leaves = s.leavesOf(x.resource);
  }
  return true;
}

void parseExpectation(const Entry& e, Scenario& s) {
  // What an expectation may ask for.
  static const OutcomeKind kOutcomes[] = {OutcomeKind::Granted, OutcomeKind::NotObtained,
                                          OutcomeKind::TimedOut, OutcomeKind::Stopped,
                                          OutcomeKind::Failed};
  e.allow({"at",       "resource",     "holder",      "holders",       "activated",
           "owner",    "outcome",      "notObtained", "error",         "module",
           "notified", "deadlock",     "staleWait",   "owners",        "from",
           "to",       "waitedBehind", "maxWaitMs",   "notifiedTimes", "grantedAtMs",
           "robot"});
  ExpectEntry x;
  int robot = robotOf(e, s);
  x.entry = e.where();
  x.atMs = e.has("at") ? e.time("at", 0) : -1;
  if (e.has("holder") || e.has("holders") || e.has("activated")) {
    const ResourceEntry& r = resolve(e, s, e.text("resource"), robot);
    x.resource = r.name;
    if (e.has("holder")) {
      x.kind = ExpectKind::Holder;
      x.holder = e.text("holder");
      if (r.kind != ResourceKind::Plain) e.fail("\"holder\" needs a plain resource");
      if (x.holder != ZU::contract::kPlaceholderName) knownOwner(e, s, x.holder);
    } else if (e.has("holders")) {
      x.kind = ExpectKind::Holders;
      x.names = e.texts("holders");
      if (r.kind != ResourceKind::State) e.fail("\"holders\" needs a state resource");
      for (const std::string& n : x.names) knownOwner(e, s, n);
    } else {
      x.kind = ExpectKind::Activated;
      x.activated = e.boolean("activated");
      if (r.kind != ResourceKind::State) e.fail("\"activated\" needs a state resource");
    }
  } else if (e.has("outcome")) {
    x.kind = ExpectKind::Outcome;
    x.owner = e.text("owner");
    knownOwner(e, s, x.owner);
    x.resource = e.optionalText("resource");
    if (!x.resource.empty()) x.resource = resolve(e, s, x.resource, robot).name;
    std::string outcome = e.text("outcome");
    auto known = std::find_if(std::begin(kOutcomes), std::end(kOutcomes),
                              [&](OutcomeKind k) { return outcome == outcomeName(k); });
    if (known == std::end(kOutcomes))
      e.fail(
          "\"outcome\" must be \"granted\", \"not obtained\", \"timed out\", \"stopped\" or "
          "\"failed\"");
    x.outcome = *known;
    x.checkNames = e.has("notObtained");
    x.names = e.texts("notObtained");
    for (std::string& n : x.names) n = resolve(e, s, n, robot).name;
    x.error = e.optionalText("error");
  } else if (e.has("notified")) {
    x.kind = ExpectKind::Notified;
    x.module = e.text("module");
    if (!s.findModule(x.module)) e.fail("unknown module " + quoteName(x.module));
    x.names = e.texts("notified");
    for (std::string& n : x.names) n = resolve(e, s, n, robot).name;
  } else if (e.has("deadlock") || e.has("staleWait")) {
    parseDiagnosis(e, s, x, robot);
  } else if (!parseHistory(e, s, x, robot)) {
    e.fail(
        "say what is expected: \"holder\", \"holders\", \"activated\", \"outcome\", "
        "\"notified\", \"deadlock\", \"staleWait\", \"waitedBehind\", \"maxWaitMs\", "
        "\"notifiedTimes\" or \"grantedAtMs\"");
  }
  if (x.kind != ExpectKind::Deadlock && x.kind != ExpectKind::StaleWait && e.has("owners"))
    e.fail("only \"deadlock\" and \"staleWait\" take \"owners\"");
  if (x.kind != ExpectKind::Deadlock && x.kind != ExpectKind::StaleWait &&
      (e.has("from") || e.has("to")))
    e.fail("only \"deadlock\" and \"staleWait\" take \"from\" and \"to\"");
  s.expectations.push_back(x);
}

}  // namespace

const char* outcomeName(OutcomeKind kind) {
  switch (kind) {
    case OutcomeKind::Granted:
      return "granted";
    case OutcomeKind::NotObtained:
      return "not obtained";
    case OutcomeKind::TimedOut:
      return "timed out";
    case OutcomeKind::Stopped:
      return "stopped";
    case OutcomeKind::Failed:
      return "failed";
  }
  return "?";
}

namespace {

template <typename T>
const T* find(const std::vector<T>& items,
              const std::unordered_map<std::string, std::size_t>& index, const std::string& name) {
  auto it = index.find(name);
  return it == index.end() ? nullptr : &items[it->second];
}

}  // namespace

std::string Scenario::resourceOf(int robot, const std::string& name) const {
  if (robot < 0 || findResource(name)) return name;
  return robots[static_cast<std::size_t>(robot)].name + kRobotSeparator + name;
}

const OwnerEntry* Scenario::findOwner(const std::string& name) const {
  return find(owners, ownerIndex, name);
}

const ModuleEntry* Scenario::findModule(const std::string& name) const {
  return find(modules, moduleIndex, name);
}

namespace {

/// The number of elements of the array `key` of `top`, 0 if it is none.
std::size_t arraySize(const json& top, const char* key) {
  return top.contains(key) && top.at(key).is_array() ? top.at(key).size() : 0;
}

/// Sorts `actions` by time, keeping the file's order for equal times. Sorts
/// their positions and moves each action once into place, so that no second
/// copy of a large timeline is made.
void sortByTime(std::vector<ActionEntry>& actions) {
  std::vector<std::size_t> order(actions.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    return actions[a].atMs < actions[b].atMs;
  });
  // Position i takes the action at order[i]: follow each cycle once.
  for (std::size_t i = 0; i < order.size(); ++i) {
    if (order[i] == i) continue;
    ActionEntry held = std::move(actions[i]);
    std::size_t at = i;
    while (order[at] != i) {
      std::size_t from = order[at];
      actions[at] = std::move(actions[from]);
      order[at] = at;
      at = from;
    }
    actions[at] = std::move(held);
    order[at] = at;
  }
}

/// Reads and checks the scenario `top`, freeing its sections' elements as it
/// goes.
Scenario readScenario(json top, const std::string& file) {
  Entry whole(top, file, "scenario");
  whole.allow({"title", "description", "stopAt", "resources", "modules", "owners", "actions",
               "expect", "robots", "ttlSeconds"});
  Scenario s;
  s.file = file;
  s.title = whole.text("title", file, false);
  s.description = whole.optionalText("description");
  long ttl = whole.integer("ttlSeconds", kDefaultTtlSeconds, 1, kMaxTimeoutSeconds);
  // Without robots, the scenario is one robot whose entries are at the top;
  // with robots, each robot's are in its entry.
  std::vector<std::pair<json*, std::string>> robots{{&top, ""}};
  if (whole.has("robots")) {
    for (const char* key : {"resources", "modules", "owners"})
      if (whole.has(key))
        whole.fail(std::string("with \"robots\", each robot has its own \"") + key + "\"");
    robots.clear();
    ZU::forEachEntry(top, "robots", file, [&](const ZU::ZUJsonEntry& e) {
      e.allow({"name", "ttlSeconds", "resources", "modules", "owners"});
      RobotEntry r{ZU::robotLocalName(e, "name", "robot", 0), ttl};
      r.ttlSeconds = e.integer("ttlSeconds", ttl, 1, kMaxTimeoutSeconds);
      for (const RobotEntry& o : s.robots)
        if (o.name == r.name) e.fail("robot " + quoteName(r.name) + " declared twice");
      s.robots.push_back(r);
      robots.emplace_back(nullptr, e.where() + ".");
    });
    for (std::size_t n = 0; n < robots.size(); ++n) robots[n].first = &top.at("robots")[n];
    if (s.robots.empty()) whole.fail("\"robots\" names no robot");
  }
  for (std::size_t n = 0; n < robots.size(); ++n) {
    int robot = s.robots.empty() ? -1 : static_cast<int>(n);
    ZU::readResources(*robots[n].first, file, robots[n].second, robot,
                      robot < 0 ? std::string() : s.robots[n].name, s);
  }
  ZU::checkNesting(s, file);
  for (std::size_t n = 0; n < robots.size(); ++n) {
    int robot = s.robots.empty() ? -1 : static_cast<int>(n);
    forEach(
        *robots[n].first, "modules", file, [&](const Entry& e) { parseModule(e, s, robot); },
        robots[n].second);
  }
  for (std::size_t n = 0; n < robots.size(); ++n) {
    int robot = s.robots.empty() ? -1 : static_cast<int>(n);
    forEach(
        *robots[n].first, "owners", file, [&](const Entry& e) { parseOwner(e, s, robot); },
        robots[n].second);
  }
  s.actions.reserve(arraySize(top, "actions"));
  s.expectations.reserve(arraySize(top, "expect"));
  forEach(top, "actions", file, [&](const Entry& e) { parseAction(e, s); });
  forEach(top, "expect", file, [&](const Entry& e) { parseExpectation(e, s); });
  if (s.resources.empty()) whole.fail("declares no resource");
  // stopAt is the end: nothing may be scheduled after it.
  long last = 0;
  for (const ActionEntry& a : s.actions) last = std::max(last, a.atMs);
  for (const ExpectEntry& x : s.expectations) last = std::max(last, x.atMs);
  s.stopAtMs = whole.time("stopAt", last + 10000);
  auto late = [&](const std::string& entry, long atMs) {
    if (atMs > s.stopAtMs)
      throw ScenarioError(file + ": " + entry + ": at " + std::to_string(atMs) +
                          " ms, after \"stopAt\" (" + std::to_string(s.stopAtMs) + " ms)");
  };
  for (const ActionEntry& a : s.actions) late(a.entry, a.atMs);
  for (const ExpectEntry& x : s.expectations) late(x.entry, x.atMs);
  // Actions of one thread run in time order, whatever order the file has.
  sortByTime(s.actions);
  return s;
}

}  // namespace

Scenario parseScenario(const std::string& text, const std::string& file) {
  return readScenario(ZU::readJson(text, file, "scenario"), file);
}

Scenario loadScenario(const std::string& path) {
  std::string file = escapeControls(path, false);
  json top;
  {
    // The text goes before the scenario is built from its JSON.
    std::string text = ZU::readInputFile(path);
    top = ZU::readJson(text, file, "scenario");
  }
  return readScenario(std::move(top), file);
}

}  // namespace zusim
