#include "scenario/sections.h"

namespace zusim {
namespace section {

void forEach(json& top, const char* key, const std::string& file,
             const std::function<void(const Entry&)>& each, const std::string& within) {
  ZU::consumeEachEntry(
      top, key, file, [&](const ZU::ZUJsonEntry& e) { each(Entry(e)); }, within);
}

std::string qualified(const Scenario& s, int robot, const std::string& name) {
  return robot < 0 ? name : s.robots[robot].name + kRobotSeparator + name;
}

void knownOwner(const Entry& e, const Scenario& s, const std::string& name) {
  if (!s.findOwner(name)) e.fail("unknown owner " + quoteName(name));
}

int knownRobot(const Entry& e, const Scenario& s, const std::string& name) {
  for (std::size_t i = 0; i < s.robots.size(); ++i)
    if (s.robots[i].name == name) return static_cast<int>(i);
  e.fail("unknown robot " + quoteName(name));
}

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

}  // namespace section
}  // namespace zusim
