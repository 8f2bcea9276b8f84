#pragma once

// What the scenario's section parsers share, inside the scenario room: the
// entry reader with the scenario's limits, and the look-ups that turn a name
// in an entry into a declared resource, owner or robot, refusing it with the
// entry named. One parser per section: resources (the resource tree, in
// zumanager), modules, owners, actions, expect; the robots and the whole
// are read in scenario.cpp.

#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include <nlohmann/json.hpp>

#include <zumanager/zujsonreader.h>
#include <zumanager/zuresourcetreereader.h>

#include "scenario/scenario.h"

namespace zusim {
namespace section {

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
             const std::function<void(const Entry&)>& each, const std::string& within = "");

using ZU::knownResource;

/// `name` of robot number `robot`: "robot/name" (`name` itself for -1).
std::string qualified(const Scenario& s, int robot, const std::string& name);

/// Appends `item` to `items` and indexes it by name; refuses a name declared
/// before.
template <typename T>
void declare(const Entry& e, const char* what, T item, std::vector<T>& items,
             std::unordered_map<std::string, std::size_t>& index) {
  if (!index.emplace(item.name, items.size()).second)
    e.fail(std::string(what) + " " + quoteName(item.name) + " declared twice");
  items.push_back(std::move(item));
}

/// Refuses an owner not declared (before this entry).
void knownOwner(const Entry& e, const Scenario& s, const std::string& name);
/// The number of the robot `name`; refuses an unknown one.
int knownRobot(const Entry& e, const Scenario& s, const std::string& name);
/// The robot an entry speaks of: its "robot", else that of its "owner" or
/// "module", else -1 (any).
int robotOf(const Entry& e, const Scenario& s);
/// The resource an entry names: in a scenario with robots, `name` of the
/// entry's robot, or of the one robot that has a resource so named; a name
/// "robot/name" always does.
const ResourceEntry& resolve(const Entry& e, const Scenario& s, const std::string& name,
                             int robot);

// The parsers: each reads one element of its section into `s`, refusing it
// with the entry and the field named. Robot number `robot` declares modules
// and owners (-1 without robots).
void parseModule(const Entry& e, Scenario& s, int robot);
void parseOwner(const Entry& e, Scenario& s, int robot);
void parseAction(const Entry& e, Scenario& s);
void parseExpectation(const Entry& e, Scenario& s);

}  // namespace section
}  // namespace zusim
