#include "scenario.h"

#include <algorithm>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

namespace zusim {

namespace {

using nlohmann::json;

/// Reads the fields of one JSON object ("actions[3]" and so on) and throws
/// ScenarioError with the file, the entry and what is wrong.
class Entry {
 public:
  Entry(const json& value, std::string file, std::string where)
      : value_(value), file_(std::move(file)), where_(std::move(where)) {
    if (!value_.is_object()) fail("must be a JSON object");
  }

  [[noreturn]] void fail(const std::string& what) const {
    throw ScenarioError(file_ + ": " + where_ + ": " + what);
  }
  const std::string& where() const { return where_; }

  /// Refuses any field not in `known`, so that a misspelt field is not
  /// silently ignored.
  void allow(std::initializer_list<const char*> known) const {
    for (auto it = value_.begin(); it != value_.end(); ++it) {
      if (std::none_of(known.begin(), known.end(), [&](const char* k) { return it.key() == k; }))
        fail("unknown field \"" + it.key() + "\"");
    }
  }
  bool has(const char* key) const { return value_.contains(key); }

  std::string text(const char* key, const std::string& fallback = std::string(),
                   bool required = true) const {
    if (!has(key)) {
      if (required) fail(std::string("missing field \"") + key + "\"");
      return fallback;
    }
    const json& v = value_.at(key);
    if (!v.is_string()) fail(std::string("\"") + key + "\" must be a string");
    return v.get<std::string>();
  }
  std::string optionalText(const char* key) const { return text(key, "", false); }

  int integer(const char* key, int fallback, bool required = false) const {
    if (!has(key)) {
      if (required) fail(std::string("missing field \"") + key + "\"");
      return fallback;
    }
    const json& v = value_.at(key);
    if (!v.is_number_integer()) fail(std::string("\"") + key + "\" must be an integer");
    return v.get<int>();
  }
  /// A time in ms: an integer, 0 or more.
  int time(const char* key, int fallback, bool required = false) const {
    int ms = integer(key, fallback, required);
    if (ms < 0) fail(std::string("negative time \"") + key + "\": " + std::to_string(ms));
    return ms;
  }
  bool boolean(const char* key) const {
    if (!has(key)) fail(std::string("missing field \"") + key + "\"");
    const json& v = value_.at(key);
    if (!v.is_boolean()) fail(std::string("\"") + key + "\" must be true or false");
    return v.get<bool>();
  }
  std::vector<std::string> texts(const char* key) const {
    std::vector<std::string> out;
    if (!has(key)) return out;
    const json& v = value_.at(key);
    if (!v.is_array()) fail(std::string("\"") + key + "\" must be an array of strings");
    for (const json& e : v) {
      if (!e.is_string()) fail(std::string("\"") + key + "\" must be an array of strings");
      out.push_back(e.get<std::string>());
    }
    return out;
  }

 private:
  const json& value_;
  std::string file_;
  std::string where_;
};

/// Calls `each` with an Entry for every element of the array `key` of `top`.
void forEach(const json& top, const char* key, const std::string& file,
             const std::function<void(const Entry&)>& each) {
  if (!top.contains(key)) return;
  const json& list = top.at(key);
  if (!list.is_array()) throw ScenarioError(file + ": \"" + key + "\" must be an array");
  for (std::size_t i = 0; i < list.size(); ++i)
    each(Entry(list[i], file, std::string(key) + "[" + std::to_string(i) + "]"));
}

template <typename T>
bool hasName(const std::vector<T>& items, const std::string& name) {
  return std::any_of(items.begin(), items.end(), [&](const T& item) { return item.name == name; });
}

void parseResource(const Entry& e, Scenario& s) {
  e.allow({"name", "kind", "activated", "members"});
  ResourceEntry r;
  r.name = e.text("name");
  if (r.name.empty()) e.fail("empty resource name");
  if (hasName(s.resources, r.name)) e.fail("resource \"" + r.name + "\" declared twice");
  std::string kind = e.text("kind", "plain", false);
  if (kind == "plain") {
    r.kind = ResourceKind::Plain;
  } else if (kind == "state") {
    r.kind = ResourceKind::State;
    if (e.has("activated")) r.activated = e.boolean("activated");
  } else if (kind == "group") {
    r.kind = ResourceKind::Group;
    r.members = e.texts("members");
  } else {
    e.fail("unknown kind \"" + kind + "\" (plain, state or group)");
  }
  if (r.kind != ResourceKind::Group && e.has("members")) e.fail("only a group has \"members\"");
  if (r.kind != ResourceKind::State && e.has("activated"))
    e.fail("only a state resource has \"activated\"");
  s.resources.push_back(r);
}

void parseModule(const Entry& e, Scenario& s) {
  e.allow({"name", "onResource", "delay"});
  ModuleEntry m;
  m.name = e.text("name");
  if (hasName(s.modules, m.name)) e.fail("module \"" + m.name + "\" declared twice");
  std::string answer = e.text("onResource", "release", false);
  if (answer == "release") {
    m.releases = true;
    m.delayMs = e.time("delay", 0);
  } else if (answer == "ignore") {
    if (e.has("delay")) e.fail("a module that ignores \"__onResource__\" has no \"delay\"");
  } else {
    e.fail("\"onResource\" must be \"release\" or \"ignore\", not \"" + answer + "\"");
  }
  s.modules.push_back(m);
}

void parseOwner(const Entry& e, Scenario& s) {
  e.allow({"name", "module"});
  OwnerEntry o;
  o.name = e.text("name");
  o.module = e.text("module");
  if (o.name.empty()) e.fail("empty owner name");
  if (o.name == "emptyOwner") e.fail("\"emptyOwner\" is the placeholder's name");
  if (hasName(s.owners, o.name)) e.fail("owner \"" + o.name + "\" declared twice");
  if (!s.findModule(o.module)) e.fail("unknown module \"" + o.module + "\"");
  s.owners.push_back(o);
}

const ResourceEntry& knownResource(const Entry& e, const Scenario& s, const std::string& name) {
  const ResourceEntry* r = s.findResource(name);
  if (!r) e.fail("unknown resource \"" + name + "\"");
  return *r;
}

void knownOwner(const Entry& e, const Scenario& s, const std::string& name) {
  if (!s.findOwner(name)) e.fail("unknown owner \"" + name + "\"");
}

void parseAction(const Entry& e, Scenario& s) {
  static const std::pair<const char*, ActionKind> kKinds[] = {
      {"waitFor", ActionKind::WaitFor},           {"release", ActionKind::Release},
      {"switchOwner", ActionKind::SwitchOwner},   {"setState", ActionKind::SetState},
      {"releaseState", ActionKind::ReleaseState}, {"stop", ActionKind::Stop}};
  e.allow({"at", "do", "owner", "resource", "label", "timeout", "noWait", "activated"});
  ActionEntry a;
  a.entry = e.where();
  a.atMs = e.time("at", 0, true);
  std::string what = e.text("do");
  auto kind =
      std::find_if(std::begin(kKinds), std::end(kKinds),
                   [&](const std::pair<const char*, ActionKind>& k) { return what == k.first; });
  if (kind == std::end(kKinds))
    e.fail("unknown action \"" + what +
           "\" (waitFor, release, switchOwner, setState, releaseState, stop)");
  a.kind = kind->second;
  a.resource = e.text("resource");
  const ResourceEntry& r = knownResource(e, s, a.resource);
  bool managerAction = a.kind == ActionKind::SetState || a.kind == ActionKind::ReleaseState;
  if (managerAction) {
    if (e.has("owner")) e.fail("\"" + what + "\" is the manager's; it has no \"owner\"");
    if (r.kind != ResourceKind::State)
      e.fail("\"" + what + "\" needs a state resource; \"" + a.resource + "\" is not one");
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
  a.timeout = e.integer("timeout", -1);
  a.noWait = e.texts("noWait");
  for (const std::string& n : a.noWait) knownResource(e, s, n);
  s.actions.push_back(a);
}

/// {"deadlock": true|false} or {"staleWait": true|false}, optionally narrowed
/// to the owners involved and a resource waited for.
void parseDiagnosis(const Entry& e, const Scenario& s, ExpectEntry& x) {
  if (e.has("deadlock") && e.has("staleWait")) e.fail("one of \"deadlock\" and \"staleWait\"");
  x.kind = e.has("deadlock") ? ExpectKind::Deadlock : ExpectKind::StaleWait;
  x.reported = e.boolean(e.has("deadlock") ? "deadlock" : "staleWait");
  if (e.has("owner")) e.fail("a deadlock or a stale wait takes \"owners\", a list");
  x.names = e.texts("owners");
  if (e.has("owners") && x.names.empty()) e.fail("\"owners\" names no owner");
  for (const std::string& n : x.names) knownOwner(e, s, n);
  x.resource = e.optionalText("resource");
  if (!x.resource.empty() && knownResource(e, s, x.resource).kind == ResourceKind::Group)
    e.fail("waits are on plain and state resources; \"" + x.resource + "\" is a group");
}

void parseExpectation(const Entry& e, Scenario& s) {
  // What an expectation may ask for: a failure other than these is not foreseeable.
  static const OutcomeKind kOutcomes[] = {OutcomeKind::Granted, OutcomeKind::NotObtained,
                                          OutcomeKind::TimedOut, OutcomeKind::Stopped};
  e.allow({"at", "resource", "holder", "holders", "activated", "owner", "outcome", "notObtained",
           "error", "module", "notified", "deadlock", "staleWait", "owners"});
  ExpectEntry x;
  x.entry = e.where();
  x.atMs = e.has("at") ? e.time("at", 0) : -1;
  if (e.has("holder") || e.has("holders") || e.has("activated")) {
    x.resource = e.text("resource");
    const ResourceEntry& r = knownResource(e, s, x.resource);
    if (e.has("holder")) {
      x.kind = ExpectKind::Holder;
      x.holder = e.text("holder");
      if (r.kind != ResourceKind::Plain) e.fail("\"holder\" needs a plain resource");
      if (x.holder != "emptyOwner") knownOwner(e, s, x.holder);
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
    if (!x.resource.empty()) knownResource(e, s, x.resource);
    std::string outcome = e.text("outcome");
    auto known = std::find_if(std::begin(kOutcomes), std::end(kOutcomes),
                              [&](OutcomeKind k) { return outcome == outcomeName(k); });
    if (known == std::end(kOutcomes))
      e.fail("\"outcome\" must be \"granted\", \"not obtained\", \"timed out\" or \"stopped\"");
    x.outcome = *known;
    x.checkNames = e.has("notObtained");
    x.names = e.texts("notObtained");
    x.error = e.optionalText("error");
  } else if (e.has("notified")) {
    x.kind = ExpectKind::Notified;
    x.module = e.text("module");
    if (!s.findModule(x.module)) e.fail("unknown module \"" + x.module + "\"");
    x.names = e.texts("notified");
    for (const std::string& n : x.names) knownResource(e, s, n);
  } else if (e.has("deadlock") || e.has("staleWait")) {
    parseDiagnosis(e, s, x);
  } else {
    e.fail(
        "say what is expected: \"holder\", \"holders\", \"activated\", \"outcome\", "
        "\"notified\", \"deadlock\" or \"staleWait\"");
  }
  if (x.kind != ExpectKind::Deadlock && x.kind != ExpectKind::StaleWait && e.has("owners"))
    e.fail("only \"deadlock\" and \"staleWait\" take \"owners\"");
  s.expectations.push_back(x);
}

/// Refuses a group that contains itself, directly or through other groups.
void checkCycles(const Scenario& s) {
  std::set<std::string> done;
  std::vector<std::string> path;
  std::function<void(const ResourceEntry&)> visit = [&](const ResourceEntry& r) {
    if (done.count(r.name)) return;
    auto again = std::find(path.begin(), path.end(), r.name);
    if (again != path.end()) {
      std::string cycle;
      for (auto it = again; it != path.end(); ++it) cycle += *it + " -> ";
      throw ScenarioError(s.file + ": resource \"" + r.name + "\": group cycle " + cycle + r.name);
    }
    path.push_back(r.name);
    for (const std::string& m : r.members) visit(*s.findResource(m));
    path.pop_back();
    done.insert(r.name);
  };
  for (const ResourceEntry& r : s.resources) visit(r);
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

const ResourceEntry* Scenario::findResource(const std::string& name) const {
  for (const ResourceEntry& r : resources)
    if (r.name == name) return &r;
  return nullptr;
}

const OwnerEntry* Scenario::findOwner(const std::string& name) const {
  for (const OwnerEntry& o : owners)
    if (o.name == name) return &o;
  return nullptr;
}

const ModuleEntry* Scenario::findModule(const std::string& name) const {
  for (const ModuleEntry& m : modules)
    if (m.name == name) return &m;
  return nullptr;
}

std::vector<std::string> Scenario::leavesOf(const std::string& name) const {
  std::vector<std::string> out;
  std::function<void(const std::string&)> walk = [&](const std::string& n) {
    const ResourceEntry* r = findResource(n);
    if (r->kind != ResourceKind::Group) {
      if (std::find(out.begin(), out.end(), n) == out.end()) out.push_back(n);
      return;
    }
    for (const std::string& m : r->members) walk(m);
  };
  walk(name);
  return out;
}

std::vector<std::string> Scenario::roots() const {
  std::set<std::string> members;
  for (const ResourceEntry& r : resources) members.insert(r.members.begin(), r.members.end());
  std::vector<std::string> out;
  for (const ResourceEntry& r : resources)
    if (!members.count(r.name)) out.push_back(r.name);
  return out;
}

Scenario parseScenario(const std::string& text, const std::string& file) {
  json top;
  try {
    top = json::parse(text);
  } catch (const json::parse_error& e) {
    throw ScenarioError(file + ": not JSON: " + e.what());
  }
  Entry whole(top, file, "scenario");
  whole.allow(
      {"title", "description", "stopAt", "resources", "modules", "owners", "actions", "expect"});
  Scenario s;
  s.file = file;
  s.title = whole.text("title", file, false);
  s.description = whole.optionalText("description");
  forEach(top, "resources", file, [&](const Entry& e) { parseResource(e, s); });
  for (std::size_t i = 0; i < s.resources.size(); ++i) {
    Entry e(top.at("resources")[i], file, "resources[" + std::to_string(i) + "]");
    for (const std::string& m : s.resources[i].members) knownResource(e, s, m);
  }
  checkCycles(s);
  forEach(top, "modules", file, [&](const Entry& e) { parseModule(e, s); });
  forEach(top, "owners", file, [&](const Entry& e) { parseOwner(e, s); });
  forEach(top, "actions", file, [&](const Entry& e) { parseAction(e, s); });
  forEach(top, "expect", file, [&](const Entry& e) { parseExpectation(e, s); });
  if (s.resources.empty()) whole.fail("declares no resource");
  int last = 0;
  for (const ActionEntry& a : s.actions) last = std::max(last, a.atMs);
  s.stopAtMs = whole.time("stopAt", last + 10000);
  for (const ActionEntry& a : s.actions)
    if (a.atMs > s.stopAtMs)
      throw ScenarioError(file + ": " + a.entry + ": at " + std::to_string(a.atMs) +
                          " ms, after \"stopAt\" (" + std::to_string(s.stopAtMs) + " ms)");
  // Actions of one thread run in time order, whatever order the file has.
  std::stable_sort(s.actions.begin(), s.actions.end(),
                   [](const ActionEntry& a, const ActionEntry& b) { return a.atMs < b.atMs; });
  return s;
}

Scenario loadScenario(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw ScenarioError(path + ": cannot be read");
  std::ostringstream text;
  text << in.rdbuf();
  return parseScenario(text.str(), path);
}

}  // namespace zusim
