#include "replay/replay.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <map>
#include <mutex>
#include <set>

#include <boost/make_shared.hpp>

#include <zuresource/zucontract.h>
#include <zuresource/zuobserver.h>

#include "run/simulation.h"

namespace zusim {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

// The kinds that are decisions about an owner, compared between the runs.
const std::set<std::string> kDecisions = {"granted", "waiting",   "notObtained", "timedOut",
                                          "stopped", "givenBack", "handedBack",  "released"};
// A stop whose release left no event of its own (the owner did not hold what
// the manager released) is re-issued this long before the stop was seen: a
// waiter sees it at its next poll, up to one polling period later.
const double kStopSeenLate = 100;
// The replayed run lasts this long after the last recorded event.
const int kTail = 1000;
// One thread's lines may come out of time order by this much.
const double kOutOfOrder = 100;
// What the recorder writes.
const std::set<std::string> kKinds = {
    "requested",      "waiting",        "notified",         "granted",  "handedBack",
    "released",       "givenBack",      "notObtained",      "timedOut", "stopped",
    "switched",       "stateActivated", "stateDeactivated", "lost",     "deadlockFormed",
    "deadlockBroken", "staleWait"};
const std::set<std::string> kGrants = {"wasFree", "handedDown", "alreadyHeld", "stateActivated"};
const std::set<std::string> kCauses = {"ownRelease", "managerStop", "destruction"};

// The text fields of an event line that replay reads.
const std::pair<const char*, std::string RecordedEvent::*> kTextFields[] = {
    {"kind", &RecordedEvent::kind},
    {"thread", &RecordedEvent::thread},
    {"resource", &RecordedEvent::resource},
    {"owner", &RecordedEvent::owner},
    {"ownerModule", &RecordedEvent::ownerModule},
    {"holder", &RecordedEvent::holder},
    {"holderModule", &RecordedEvent::holderModule},
    {"parent", &RecordedEvent::parent},
    {"grant", &RecordedEvent::grant},
    {"cause", &RecordedEvent::cause},
    {"label", &RecordedEvent::label},
    {"reason", &RecordedEvent::reason}};

std::string text(const json& line, const char* key) {
  auto it = line.find(key);
  return it != line.end() && it->is_string() ? it->get<std::string>() : std::string();
}

long at(double ms) { return std::max(0L, std::lround(ms)); }

std::string describe(const RecordedEvent& e) {
  std::string out = e.kind + " " + e.resource;
  if (e.kind == "waiting") out += " behind " + e.holder;
  if (e.kind == "granted" && !e.grant.empty()) out += " (" + e.grant + ")";
  if (e.kind == "handedBack") out += " to " + e.parent;
  if (e.kind == "stopped" && !e.cause.empty()) out += " (" + e.cause + ")";
  return out;
}

/// Keeps the events of a replayed run.
///
/// Thread safety: thread safe; mutex_ guards the events.
class Collector : public ZU::ZUObserver {
 public:
  void onEvent(const ZU::ZUEvent& event) override {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(event);
  }
  std::vector<ZU::ZUEvent> events() {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }

 private:
  std::mutex mutex_;
  std::vector<ZU::ZUEvent> events_;
};

/// The time of the latest event (lines of different threads may come out of
/// time order), or 0 for none.
double latestMs(const std::vector<RecordedEvent>& events) {
  double latest = 0;
  for (const auto& e : events) latest = std::max(latest, e.ms);
  return latest;
}

/// What a name means when it says nothing: "none" is left empty.
std::string named(const char* name) { return std::string(name) == "none" ? "" : name; }

/// Builds the scenario from the events, in one pass per concern.
class ScenarioBuilder {
 public:
  explicit ScenarioBuilder(const Recording& r) : r_(r) {}

  ordered_json build() {
    resources();
    owners();
    classify();
    ordered_json s;
    s["title"] = "Replay of " + r_.file;
    s["description"] =
        "Recorded from " + (r_.wallClock.empty() ? "an unknown time" : r_.wallClock) +
        (r_.cut ? "; the recording is cut at line " + std::to_string(r_.cutLine) : std::string());
    s["stopAt"] = at(latestMs(r_.events)) + kTail;
    s["resources"] = resources_;
    s["modules"] = modules();
    s["owners"] = ordered_json::array();
    for (const auto& o : ownerModule_)
      s["owners"].push_back({{"name", o.first}, {"module", o.second}});
    s["actions"] = actions();
    s["expect"] = expectations();
    return s;
  }

 private:
  void resources() {
    resources_ = ordered_json::array();
    if (r_.firstSnapshot.is_object())
      for (const json& res : r_.firstSnapshot.value("resources", json::array())) {
        ordered_json entry = {{"name", text(res, "name")}};
        std::string kind = text(res, "kind");
        if (kind != "plain") entry["kind"] = kind;
        if (kind == "state") entry["activated"] = res.value("activated", false);
        if (kind == "group") entry["members"] = res.value("members", json::array());
        if (kind == "group")
          for (const ordered_json& m : entry["members"]) members_[entry["name"]].push_back(m);
        known_.insert(text(res, "name"));
        resources_.push_back(entry);
      }
    std::set<std::string> state;
    for (const RecordedEvent& e : r_.events)
      if (e.kind == "stateActivated" || e.kind == "stateDeactivated") state.insert(e.resource);
    for (const RecordedEvent& e : r_.events)
      if (!e.resource.empty() && known_.insert(e.resource).second)
        resources_.push_back(state.count(e.resource)
                                 ? ordered_json{{"name", e.resource}, {"kind", "state"}}
                                 : ordered_json{{"name", e.resource}});
    // A no-wait list may name a resource the recording shows nothing else of.
    for (const RecordedEvent& e : r_.events)
      for (const std::string& n : e.noWait)
        if (known_.insert(n).second) resources_.push_back(ordered_json{{"name", n}});
  }

  void owners() {
    for (const RecordedEvent& e : r_.events) {
      if (!e.owner.empty() && !e.ownerModule.empty()) ownerModule_.emplace(e.owner, e.ownerModule);
      if (e.kind == "requested") requestThreads_[e.owner].insert(e.thread);
    }
  }

  /// Everything `resource` takes, in the order its request takes it: itself,
  /// then its members depth first.
  void expand(const std::string& resource, std::vector<std::string>& out) const {
    out.push_back(resource);
    auto m = members_.find(resource);
    if (m != members_.end())
      for (const std::string& member : m->second) expand(member, out);
  }

  /// Sorts the events into the actions to re-issue and what the modules do.
  void classify() {
    std::map<std::string, std::vector<std::string>> nested;  // owner -> requests still to come
    std::map<std::string, std::string> failingGroup;         // owner -> group being given back
    std::map<std::string, double> notified;                  // module -> last notification
    for (std::size_t i = 0; i < r_.events.size(); ++i) {
      const RecordedEvent& e = r_.events[i];
      bool ownThread = requestThreads_[e.owner].count(e.thread) > 0;
      if (e.kind == "notified") notified[e.holderModule] = e.ms;
      if (e.kind == "requested") {
        std::vector<std::string>& next = nested[e.owner];
        if (!next.empty() && next.front() == e.resource) {
          next.erase(next.begin());
          continue;
        }
        next.clear();
        expand(e.resource, next);
        next.erase(next.begin());
        failingGroup.erase(e.owner);
        top_.push_back(i);
        // A group's failure gives back its members in the owner's thread:
        // those releases are the group's own, not to be re-issued.
        std::vector<std::string> inside;
        expand(e.resource, inside);
        for (std::size_t k = i + 1; k < r_.events.size(); ++k) {
          const RecordedEvent& f = r_.events[k];
          if (f.owner != e.owner || f.thread != e.thread) continue;
          if (f.kind == "givenBack" && f.resource == e.resource) {
            failingGroup[e.owner] = e.resource;
            break;
          }
          if (f.kind == "requested" &&
              (f.resource == e.resource ||
               std::find(inside.begin(), inside.end(), f.resource) == inside.end()))
            break;
        }
      } else if (e.kind == "givenBack") {
        failingGroup.erase(e.owner);
      } else if (e.kind == "released" || e.kind == "handedBack") {
        if (ownThread && failingGroup.count(e.owner)) continue;
        if (ownThread) {
          top_.push_back(i);
          continue;
        }
        auto told = notified.find(ownerModule_[e.owner]);
        if (told != notified.end() && told->second <= e.ms) {
          delays_[ownerModule_[e.owner]].push_back(e.ms - told->second);
        } else {
          stops_.push_back(i);
        }
      } else if (e.kind == "stopped" && e.cause == "managerStop") {
        stops_.push_back(i);
      } else if (e.kind == "switched" || e.kind == "stateActivated" ||
                 e.kind == "stateDeactivated") {
        top_.push_back(i);
      }
    }
  }

  ordered_json modules() const {
    std::set<std::string> names;
    for (const auto& o : ownerModule_) names.insert(o.second);
    ordered_json out = ordered_json::array();
    for (const std::string& m : names) {
      auto d = delays_.find(m);
      if (d == delays_.end()) {
        out.push_back({{"name", m}, {"onResource", "ignore"}});
        continue;
      }
      std::vector<double> delays = d->second;
      std::nth_element(delays.begin(), delays.begin() + delays.size() / 2, delays.end());
      out.push_back(
          {{"name", m}, {"onResource", "release"}, {"delay", at(delays[delays.size() / 2])}});
    }
    return out;
  }

  ordered_json actions() const {
    std::vector<std::pair<long, ordered_json>> out;
    for (std::size_t i : top_) {
      const RecordedEvent& e = r_.events[i];
      ordered_json a = {{"at", at(e.ms)}};
      if (e.kind == "requested") {
        a.update({{"owner", e.owner}, {"do", "waitFor"}, {"resource", e.resource}});
        if (e.timeout >= 0) a["timeout"] = e.timeout;
        if (!e.noWait.empty()) a["noWait"] = e.noWait;
        if (!e.label.empty()) a["label"] = e.label;
      } else if (e.kind == "switched") {
        a.update({{"owner", e.owner}, {"do", "switchOwner"}, {"resource", e.resource}});
      } else if (e.kind == "stateActivated" || e.kind == "stateDeactivated") {
        a.update({{"do", "setState"},
                  {"resource", e.resource},
                  {"activated", e.kind == "stateActivated"}});
      } else {
        a.update({{"owner", e.owner}, {"do", "release"}, {"resource", e.resource}});
      }
      out.emplace_back(at(e.ms), a);
    }
    for (std::size_t i : stops_) {
      const RecordedEvent& e = r_.events[i];
      double ms = e.kind == "stopped" ? e.ms - kStopSeenLate : e.ms;
      out.emplace_back(
          at(ms),
          ordered_json{
              {"at", at(ms)}, {"owner", e.owner}, {"do", "stop"}, {"resource", e.resource}});
    }
    std::stable_sort(out.begin(), out.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    ordered_json list = ordered_json::array();
    for (auto& a : out) list.push_back(a.second);
    return list;
  }

  /// The outcome of each owner's latest request of each resource, and the
  /// final holders of plain resources.
  ordered_json expectations() const {
    std::map<std::pair<std::string, std::string>, std::string> outcome;
    std::vector<std::pair<std::string, std::string>> order;
    for (std::size_t t = 0; t < top_.size(); ++t) {
      const RecordedEvent& request = r_.events[top_[t]];
      if (request.kind != "requested") continue;
      // The outcome of a group is its worst member's.
      bool timedOut = false, stopped = false, notObtained = false, granted = false, later = false;
      for (std::size_t k = top_[t] + 1; k < r_.events.size(); ++k) {
        const RecordedEvent& f = r_.events[k];
        if (f.owner != request.owner) continue;
        if (std::binary_search(top_.begin(), top_.end(), k)) {  // top_ is in event order
          later = true;
          break;
        }
        if (f.thread != request.thread) continue;
        timedOut = timedOut || f.kind == "timedOut";
        stopped = stopped || f.kind == "stopped";
        notObtained = notObtained || f.kind == "notObtained";
        granted = granted || f.kind == "granted";
        if (f.kind == "givenBack" || f.kind == "timedOut" || f.kind == "stopped") break;
      }
      // In a cut recording, an owner's last request may have gone on past the cut.
      if (r_.cut && !later) continue;
      std::string found = timedOut      ? "timed out"
                          : stopped     ? "stopped"
                          : notObtained ? "not obtained"
                          : granted     ? "granted"
                                        : "";
      if (found.empty()) continue;  // still running at the end or at the cut
      auto key = std::make_pair(request.owner, request.resource);
      if (!outcome.count(key)) order.push_back(key);
      outcome[key] = found;
    }
    ordered_json out = ordered_json::array();
    for (const auto& key : order)
      out.push_back({{"owner", key.first}, {"resource", key.second}, {"outcome", outcome.at(key)}});
    // A final holder is expected of what the scenario has as plain, whatever
    // the last snapshot says of its kind.
    std::set<std::string> plain;
    for (const auto& res : resources_)
      if (!res.contains("kind")) plain.insert(res.value("name", std::string()));
    if (!r_.cut && r_.lastSnapshot.is_object())
      for (const json& res : r_.lastSnapshot.value("resources", json::array()))
        if (text(res, "kind") == "plain" && plain.count(text(res, "name"))) {
          json holders = res.value("holders", json::array());
          out.push_back({{"resource", text(res, "name")},
                         {"holder", holders.empty() ? std::string(ZU::contract::kPlaceholderName)
                                                    : holders[0].get<std::string>()}});
        }
    return out;
  }

  const Recording& r_;
  ordered_json resources_;
  std::set<std::string> known_;
  std::map<std::string, std::vector<std::string>> members_;
  std::map<std::string, std::string> ownerModule_;
  std::map<std::string, std::set<std::string>> requestThreads_;
  std::vector<std::size_t> top_;    // events re-issued as the owners' or state actions
  std::vector<std::size_t> stops_;  // events re-issued as the manager's stops
  std::map<std::string, std::vector<double>> delays_;  // module -> its delays to let go
};

/// Reads a recording line by line and refuses, naming the line and the
/// field, whatever the recorder cannot have written or replay cannot carry
/// into a scenario: a recording comes from outside, possibly cut off, edited
/// or corrupted.
class RecordingReader {
 public:
  explicit RecordingReader(const std::string& file) : file_(file) { r_.file = file; }

  Recording read(std::istream& in) {
    std::string text;
    for (line_ = 1; std::getline(in, text); ++line_) {
      if (text.empty()) continue;
      json j = json::parse(text, nullptr, false);
      if (j.is_discarded()) {
        // Only the last line may be incomplete: the recorder stopped mid-line.
        if (in.peek() != std::char_traits<char>::eof()) refuse("", "not JSON");
        r_.cut = true;
        r_.cutLine = line_;
        r_.cutMs = latestMs(r_.events);
        break;
      }
      if (!j.is_object()) refuse("", "not a JSON object");
      std::string type = required(j, "type");
      if (type == "start") {
        r_.wallClock = optional(j, "wallClock");
      } else if (type == "snapshot") {
        snapshot(j);
      } else if (type == "event") {
        event(j);
      } else if (type == "dropped") {
        number(j, "ms");
      } else {
        refuse("type",
               "unknown line type " + quoteName(type) + " (start, event, snapshot or dropped)");
      }
    }
    if (r_.events.empty())
      throw ScenarioError(escapeControls(file_, false) + ": records no event" +
                          (r_.cut ? " before its cut at line " + std::to_string(r_.cutLine)
                                  : std::string()));
    if (r_.lastSnapshot.is_null()) {
      r_.lastSnapshot = r_.firstSnapshot;
      lastSnapshotLine_ = firstSnapshotLine_;
    }
    finalSnapshot();
    return std::move(r_);
  }

 private:
  [[noreturn]] void refuse(const std::string& field, const std::string& what) const {
    refuseAt(line_, field, what);
  }
  [[noreturn]] void refuseAt(std::size_t line, const std::string& field,
                             const std::string& what) const {
    throw ScenarioError(escapeControls(file_, false) + ": line " + std::to_string(line) + ": " +
                        (field.empty() ? "" : "\"" + escapeControls(field, true) + "\": ") + what);
  }

  static const char* typeName(const json& j) { return j.type_name(); }

  /// A text field: absent is empty; anything but a string is refused.
  std::string optional(const json& j, const char* key) const {
    auto it = j.find(key);
    if (it == j.end()) return std::string();
    if (!it->is_string()) refuse(key, std::string("must be a string, not ") + typeName(*it));
    return it->get<std::string>();
  }
  std::string required(const json& j, const char* key) const {
    if (!j.contains(key)) refuse(key, "missing");
    std::string t = optional(j, key);
    if (t.empty()) refuse(key, "empty");
    return t;
  }
  /// A time in ms: a finite number.
  double number(const json& j, const char* key) const {
    auto it = j.find(key);
    if (it == j.end()) refuse(key, "missing");
    if (!it->is_number()) refuse(key, std::string("must be a number, not ") + typeName(*it));
    double v = it->get<double>();
    if (!std::isfinite(v)) refuse(key, "must be a finite number");
    return v;
  }
  /// A list of names; `field` names it in messages.
  std::vector<std::string> names(const json& j, const char* key, const std::string& field) const {
    std::vector<std::string> out;
    auto it = j.find(key);
    if (it == j.end()) return out;
    if (!it->is_array())
      refuse(field, std::string("must be a list of names, not ") + typeName(*it));
    for (const json& n : *it) {
      if (!n.is_string())
        refuse(field, std::string("must be a list of names, not of ") + typeName(n) + "s");
      out.push_back(n.get<std::string>());
    }
    return out;
  }

  void event(const json& j) {
    RecordedEvent e;
    e.line = line_;
    e.ms = number(j, "ms");
    if (e.ms < 0 || e.ms > kMaxMs - kTail)
      refuse("ms", "must be from 0 to " + std::to_string(kMaxMs - kTail) +
                       " (the simulator replays up to an hour), not " + j.at("ms").dump());
    // One thread's events come in the order it made them. Different threads'
    // lines may come out of time order by as long as a wait lasts: a waiting
    // thread tells its events once it lets go of the resource's lock.
    Latest& latest = latest_[optional(j, "thread")];
    if (e.ms < latest.ms - kOutOfOrder)
      refuse("ms", "goes back to " + j.at("ms").dump() + " after " + std::to_string(at(latest.ms)) +
                       " ms (line " + std::to_string(latest.line) + ")");
    if (e.ms > latest.ms) latest = {e.ms, line_};
    for (const auto& field : kTextFields) e.*field.second = optional(j, field.first);
    if (!kKinds.count(e.kind))
      refuse("kind", (e.kind.empty() ? "missing" : "unknown kind " + quoteName(e.kind)));
    bool aboutCycle =
        e.kind == "deadlockFormed" || e.kind == "deadlockBroken" || e.kind == "staleWait";
    if (!aboutCycle && e.resource.empty()) refuse("resource", "empty resource name");
    bool needsOwner = !aboutCycle && e.kind != "notified" && e.kind != "stateActivated" &&
                      e.kind != "stateDeactivated" && e.kind != "lost" &&
                      !(e.kind == "stopped" && e.cause == "destruction");
    if (needsOwner && e.owner.empty()) refuse("owner", "empty owner name");
    if (!e.owner.empty()) owner(e);
    if (e.kind == "notified" && e.holderModule.empty()) refuse("holderModule", "empty module name");
    if (e.kind == "granted" && !e.grant.empty() && !kGrants.count(e.grant))
      refuse("grant", "unknown grant " + quoteName(e.grant));
    if (e.kind == "stopped" && !e.cause.empty() && !kCauses.count(e.cause))
      refuse("cause", "unknown cause " + quoteName(e.cause));
    if (j.contains("timeout")) {
      const json& t = j["timeout"];
      // Negative is no limit; over the simulator's hour cannot be replayed.
      if (!t.is_number_integer() ||
          (t.is_number_unsigned() &&
           t.get<std::uint64_t>() > static_cast<std::uint64_t>(kMaxTimeoutSeconds)) ||
          (!t.is_number_unsigned() && t.get<std::int64_t>() > kMaxTimeoutSeconds))
        refuse("timeout", "must be a whole number of seconds up to " +
                              std::to_string(kMaxTimeoutSeconds) + " (negative: no limit), not " +
                              t.dump());
      e.timeout = t.is_number_unsigned() || t.get<std::int64_t>() >= 0
                      ? static_cast<int>(t.get<std::int64_t>())
                      : -1;
    }
    e.noWait = names(j, "noWaitList", "noWaitList");
    for (const std::string& n : e.noWait)
      if (n.empty()) refuse("noWaitList", "empty resource name");
    if (e.kind == "stateActivated" || e.kind == "stateDeactivated") {
      auto declared = kinds_.find(e.resource);
      if (declared != kinds_.end() && declared->second != "state")
        refuse("resource", quoteName(e.resource) + " changes state, but the snapshot (line " +
                               std::to_string(firstSnapshotLine_) + ") has it " + declared->second);
    }
    seen_.emplace(e.resource, line_);
    r_.events.push_back(std::move(e));
  }

  /// An owner keeps its module, and is not named as the placeholder.
  void owner(const RecordedEvent& e) {
    if (e.owner == ZU::contract::kPlaceholderName)
      refuse("owner", quoteName(e.owner) + " is the placeholder's name");
    if (e.ownerModule.empty()) refuse("ownerModule", "empty module name");
    auto known = owners_.emplace(e.owner, std::make_pair(e.ownerModule, line_)).first;
    if (known->second.first != e.ownerModule)
      refuse("ownerModule", quoteName(e.owner) + " is of module " + quoteName(known->second.first) +
                                " (line " + std::to_string(known->second.second) + "), not " +
                                quoteName(e.ownerModule));
  }

  void snapshot(json& j) {
    number(j, "ms");
    auto list = j.find("resources");
    if (list == j.end()) refuse("resources", "missing");
    if (!list->is_array())
      refuse("resources", std::string("must be a list, not ") + typeName(*list));
    bool first = r_.firstSnapshot.is_null();
    std::set<std::string> listedNames;
    for (std::size_t i = 0; i < list->size(); ++i) {
      const json& res = (*list)[i];
      std::string at = "resources[" + std::to_string(i) + "]";
      if (!res.is_object()) refuse(at, std::string("must be an object, not ") + typeName(res));
      std::string name = required(res, "name");
      if (!listedNames.insert(name).second) refuse(at, quoteName(name) + " listed twice");
      std::string kind = required(res, "kind");
      if (kind != "plain" && kind != "state" && kind != "group")
        refuse(at + ".kind", "unknown kind " + quoteName(kind) + " (plain, state or group)");
      names(res, "holders", at + ".holders");
      if (res.contains("activated") && !res["activated"].is_boolean())
        refuse(at + ".activated",
               std::string("must be true or false, not ") + typeName(res["activated"]));
      std::vector<std::string> members = names(res, "members", at + ".members");
      if (kind == "group" && !res.contains("members")) refuse(at + ".members", "missing");
      if (kind == "group" && first) {
        std::set<std::string> listed;
        for (const std::string& m : members) {
          if (m.empty()) refuse(at + ".members", "empty resource name");
          if (!listed.insert(m).second) refuse(at + ".members", quoteName(m) + " listed twice");
        }
        members_[name] = members;
      }
      if (first) kinds_[name] = kind;
    }
    if (first) {
      for (const auto& g : members_)
        for (const std::string& m : g.second)
          if (!kinds_.count(m))
            refuse("resources",
                   "group " + quoteName(g.first) + " has the unknown member " + quoteName(m));
      std::map<std::string, int> depth;
      for (const auto& g : members_) nesting(g.first, depth, 0);
      r_.firstSnapshot = std::move(j);
      firstSnapshotLine_ = line_;
    } else {
      r_.lastSnapshot = std::move(j);
      lastSnapshotLine_ = line_;
    }
  }

  /// How deep `group` nests (a group of plain resources is 1); refuses a
  /// group inside itself and nesting past the scenario's limit. `depth`
  /// holds the groups done, and 0 for those being walked.
  int nesting(const std::string& group, std::map<std::string, int>& depth, int walked) {
    auto g = members_.find(group);
    if (g == members_.end()) return 0;
    auto d = depth.find(group);
    if (d != depth.end()) {
      if (d->second == 0) refuse("resources", "group " + quoteName(group) + " contains itself");
      return d->second;
    }
    if (walked >= kMaxNesting)
      refuse("resources", "groups nest deeper than " + std::to_string(kMaxNesting) + " levels");
    depth[group] = 0;
    int deepest = 0;
    for (const std::string& m : g->second)
      deepest = std::max(deepest, nesting(m, depth, walked + 1));
    return depth[group] = deepest + 1;
  }

  /// What the last snapshot says becomes the replay's final expectations:
  /// its plain resources must be known, and their holders owners of the
  /// recording.
  void finalSnapshot() const {
    if (!r_.lastSnapshot.is_object()) return;
    for (const json& res : r_.lastSnapshot.at("resources")) {
      std::string name = res.at("name").get<std::string>();
      if (!kinds_.count(name) && !seen_.count(name))
        refuseAt(lastSnapshotLine_, "resources",
                 quoteName(name) + " is in no other snapshot and no event");
      if (res.at("kind") != "plain" || !res.contains("holders") || res.at("holders").empty())
        continue;
      std::string holder = res.at("holders")[0].get<std::string>();
      if (!owners_.count(holder) && holder != ZU::contract::kPlaceholderName)
        refuseAt(lastSnapshotLine_, "holders",
                 quoteName(holder) + " of " + quoteName(name) + " is in no event");
    }
  }

  const std::string file_;
  Recording r_;
  std::size_t line_ = 0;
  /// The latest time seen from one thread, and its line.
  struct Latest {
    double ms = 0;
    std::size_t line = 0;
  };
  std::map<std::string, Latest> latest_;  // by the events' "thread"
  std::size_t firstSnapshotLine_ = 0, lastSnapshotLine_ = 0;
  std::map<std::string, std::string> kinds_;                           // in the first snapshot
  std::map<std::string, std::vector<std::string>> members_;            // its groups
  std::map<std::string, std::pair<std::string, std::size_t>> owners_;  // module, line
  std::map<std::string, std::size_t> seen_;                            // resources of events
};

}  // namespace

Recording Recording::read(const std::string& path) {
  // A folder or a device is refused before it is opened: /dev/zero would
  // never end its first line.
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
    throw ScenarioError(escapeControls(path, false) + ": cannot be read (not a regular file)");
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ScenarioError(escapeControls(path, false) + ": cannot be read");
  return parse(in, path);
}

Recording Recording::parse(std::istream& in, const std::string& file) {
  return RecordingReader(file).read(in);
}

ordered_json Recording::toScenario() const { return ScenarioBuilder(*this).build(); }

std::string firstDivergence(const Recording& recorded, const std::vector<RecordedEvent>& replayed) {
  std::map<std::string, std::vector<const RecordedEvent*>> before, again;
  for (const RecordedEvent& e : recorded.events)
    if (kDecisions.count(e.kind)) before[e.owner].push_back(&e);
  for (const RecordedEvent& e : replayed)
    if (kDecisions.count(e.kind) && (!recorded.cut || e.ms <= recorded.cutMs))
      again[e.owner].push_back(&e);
  double earliest = 0;
  std::string text;
  auto consider = [&](const std::string& owner, const RecordedEvent* was,
                      const RecordedEvent* now) {
    double ms = was ? was->ms : now->ms;
    if (!text.empty() && earliest <= ms) return;
    earliest = ms;
    text = "at " + std::to_string(at(ms)) + " ms" +
           (was ? " (line " + std::to_string(was->line) + ")" : std::string()) + ", " + owner +
           ": recorded " + (was ? describe(*was) : "nothing more") + "; replayed " +
           (now ? describe(*now) + " at " + std::to_string(at(now->ms)) + " ms" : "nothing more");
  };
  std::set<std::string> owners;
  for (const auto& b : before) owners.insert(b.first);
  for (const auto& a : again) owners.insert(a.first);
  for (const std::string& owner : owners) {
    const auto& was = before[owner];
    const auto& now = again[owner];
    for (std::size_t i = 0; i < std::max(was.size(), now.size()); ++i) {
      const RecordedEvent* w = i < was.size() ? was[i] : nullptr;
      const RecordedEvent* n = i < now.size() ? now[i] : nullptr;
      if (w && n && describe(*w) == describe(*n)) continue;
      // Past a cut nothing was recorded; a decision just before it may be
      // replayed a moment after it.
      if (recorded.cut && (!w || (!n && w->ms > recorded.cutMs - kStopSeenLate))) break;
      consider(owner, w, n);
      break;
    }
  }
  return text;
}

std::vector<RecordedEvent> replay(const Scenario& scenario, EventLog& log, RunRecord& record) {
  auto collector = boost::make_shared<Collector>();
  Simulation simulation(scenario, log);
  ZU::ZUObservers::add(collector);
  record = simulation.run();
  ZU::ZUObservers::remove(collector);
  std::vector<RecordedEvent> out;
  for (const ZU::ZUEvent& z : collector->events()) {
    RecordedEvent e;
    e.ms = static_cast<double>(log.msOf(z.time));
    e.kind = ZU::kindName(z.kind);
    e.resource = z.resource;
    e.owner = z.owner;
    e.holder = z.holder;
    e.parent = z.parent;
    e.grant = named(ZU::grantName(z.grant));
    e.cause = named(ZU::causeName(z.cause));
    out.push_back(e);
  }
  return out;
}

}  // namespace zusim
