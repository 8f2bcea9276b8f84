#include "scenario/scenario.h"

#include <algorithm>
#include <utility>

#include "scenario/sections.h"

namespace zusim {

using nlohmann::json;
using section::Entry;
using section::forEach;
using section::parseAction;
using section::parseExpectation;
using section::parseModule;
using section::parseOwner;

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
