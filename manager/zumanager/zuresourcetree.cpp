#include "zumanager/zuresourcetree.h"

#include <algorithm>
#include <unordered_set>

#include "zumanager/zumanager.h"
#include "zumanager/zuresourcetreereader.h"

namespace ZU {

using nlohmann::json;

namespace {

std::string qualified(int robot, const std::string& robotName, const std::string& name) {
  return robot < 0 ? name : robotName + kRobotSeparator + name;
}

void readResource(const ZUJsonEntry& e, int robot, const std::string& robotName,
                  ZUResourceTree& tree) {
  e.allow({"name", "kind", "activated", "members", "graceMs", "fallback"});
  ZUTreeResource r;
  r.robot = robot;
  r.libraryName = robotLocalName(e, "name", "resource", robot);
  r.name = qualified(robot, robotName, r.libraryName);
  std::string kind = e.text("kind", "plain", false);
  if (kind == "plain") {
    r.kind = ZUTreeKind::Plain;
  } else if (kind == "fleet") {
    if (robot < 0) e.fail("a fleet resource is shared by robots: declare it in \"robots\"");
    r.fleet = true;
  } else if (kind == "state") {
    r.kind = ZUTreeKind::State;
    if (e.has("activated")) r.activated = e.boolean("activated");
  } else if (kind == "group") {
    r.kind = ZUTreeKind::Group;
    r.members = e.texts("members");
    for (std::string& m : r.members) m = qualified(robot, robotName, m);
    std::unordered_set<std::string> listed;
    for (const std::string& m : r.members)
      if (!listed.insert(m).second) e.fail("group lists " + quoteName(m) + " twice");
  } else {
    e.fail("unknown kind " + quoteName(kind) + " (plain, state, group or fleet)");
  }
  if (!r.fleet) r.libraryName = r.name;
  if (r.kind != ZUTreeKind::Group && e.has("members")) e.fail("only a group has \"members\"");
  if (r.kind != ZUTreeKind::State && e.has("activated"))
    e.fail("only a state resource has \"activated\"");
  // The manager's policies. A state resource is shared: never taken from its
  // holders, never held by a fallback owner.
  if (r.kind == ZUTreeKind::State && (e.has("graceMs") || e.has("fallback")))
    e.fail("a state resource is shared: it has no \"graceMs\" and no \"fallback\"");
  r.graceMs = e.time("graceMs", -1, ZUResourcePolicy::kMaxGraceMs);
  if (e.has("fallback")) r.fallback = e.name("fallback", "owner");
  if (!tree.resourceIndex.emplace(r.name, tree.resources.size()).second)
    e.fail("resource " + quoteName(r.name) + " declared twice");
  tree.resources.push_back(std::move(r));
}

}  // namespace

std::string robotLocalName(const ZUJsonEntry& e, const char* key, const char* what, int robot) {
  std::string n = e.name(key, what);
  if (robot >= 0 && n.find(kRobotSeparator) != std::string::npos)
    e.fail(std::string("a robot's ") + what + " name has no \"" + kRobotSeparator +
           "\": " + quoteName(n));
  return n;
}

const ZUTreeResource& knownResource(const ZUJsonEntry& e, const ZUResourceTree& tree,
                                    const std::string& name) {
  const ZUTreeResource* r = tree.findResource(name);
  if (!r) e.fail("unknown resource " + quoteName(name));
  return *r;
}

void readResources(json& at, const std::string& file, const std::string& within, int robot,
                   const std::string& robotName, ZUResourceTree& tree) {
  std::size_t first = tree.resources.size();
  if (at.contains("resources") && at.at("resources").is_array()) {
    tree.resources.reserve(first + at.at("resources").size());
    tree.resourceIndex.reserve(first + at.at("resources").size());
  }
  consumeEachEntry(
      at, "resources", file,
      [&](const ZUJsonEntry& e) { readResource(e, robot, robotName, tree); }, within);
  // Members may be declared after their group: they are looked up once all
  // of this part's resources are read.
  for (std::size_t i = first; i < tree.resources.size(); ++i)
    for (const std::string& m : tree.resources[i].members)
      if (!tree.findResource(m))
        throw ZUInputError(file + ": " + within + "resources[" + std::to_string(i - first) +
                           "]: unknown resource " + quoteName(m));
}

void checkNesting(const ZUResourceTree& tree, const std::string& file) {
  // Walks without recursion, so that any file is refused with a message,
  // never with a crash. Per resource: 0 not seen, -1 on the walk's path, else
  // its depth (a plain or state resource 0, a group one more than its deepest
  // member).
  const std::vector<ZUTreeResource>& resources = tree.resources;
  std::vector<int> depth(resources.size(), 0);
  struct Step {
    std::size_t resource;
    std::size_t next;  // the next member to look at
  };
  std::vector<Step> path;
  for (std::size_t root = 0; root < resources.size(); ++root) {
    if (depth[root] != 0 || resources[root].kind != ZUTreeKind::Group) continue;
    path.push_back({root, 0});
    depth[root] = -1;
    while (!path.empty()) {
      Step& top = path.back();
      const ZUTreeResource& group = resources[top.resource];
      if (top.next == group.members.size()) {
        int deepest = 0;
        for (const std::string& m : group.members)
          deepest = std::max(deepest, depth[tree.resourceIndex.at(m)]);
        depth[top.resource] = deepest + 1;
        if (depth[top.resource] > kMaxTreeNesting)
          throw ZUInputError(file + ": resource " + quoteName(group.name) + ": groups nest " +
                             "deeper than " + std::to_string(kMaxTreeNesting) + " levels");
        path.pop_back();
        continue;
      }
      std::size_t member = tree.resourceIndex.at(group.members[top.next++]);
      if (depth[member] == -1) {
        std::string cycle;
        auto again = std::find_if(path.begin(), path.end(),
                                  [&](const Step& p) { return p.resource == member; });
        for (auto it = again; it != path.end(); ++it) cycle += resources[it->resource].name + " -> ";
        throw ZUInputError(file + ": resource " + quoteName(resources[member].name) +
                           ": group cycle " + cycle + resources[member].name);
      }
      if (depth[member] == 0 && resources[member].kind == ZUTreeKind::Group) {
        depth[member] = -1;
        path.push_back({member, 0});
      }
    }
  }
}

const ZUTreeResource* ZUResourceTree::findResource(const std::string& name) const {
  auto it = resourceIndex.find(name);
  return it == resourceIndex.end() ? nullptr : &resources[it->second];
}

std::vector<std::string> ZUResourceTree::leavesOf(const std::string& name) const {
  std::vector<std::string> out;
  std::unordered_set<std::string> seen;
  std::vector<const std::string*> todo{&name};  // the members still to walk, last first
  while (!todo.empty()) {
    const std::string& n = *todo.back();
    todo.pop_back();
    const ZUTreeResource* r = findResource(n);
    if (r->kind != ZUTreeKind::Group) {
      if (seen.insert(n).second) out.push_back(n);
      continue;
    }
    for (auto m = r->members.rbegin(); m != r->members.rend(); ++m) todo.push_back(&*m);
  }
  return out;
}

std::vector<std::string> ZUResourceTree::roots() const {
  std::unordered_set<std::string> members;
  for (const ZUTreeResource& r : resources) members.insert(r.members.begin(), r.members.end());
  std::vector<std::string> out;
  for (const ZUTreeResource& r : resources)
    if (!members.count(r.name)) out.push_back(r.name);
  return out;
}

bool ZUResourceTree::hasFleet() const {
  return std::any_of(resources.begin(), resources.end(),
                     [](const ZUTreeResource& r) { return r.fleet; });
}

ZUResourceTree parseResourceTree(const std::string& text, const std::string& file) {
  json top = readJson(text, file, "tree");
  ZUJsonEntry whole(top, file, "tree");
  whole.allow({"resources", "clients"});  // the clients are the rights' (zurights.h)
  ZUResourceTree tree;
  readResources(top, file, "", -1, "", tree);
  checkNesting(tree, file);
  if (tree.resources.empty()) whole.fail("declares no resource");
  return tree;
}

ZUResourceTree loadResourceTree(const std::string& path) {
  return parseResourceTree(readInputFile(path), escapeControls(path, false));
}

}  // namespace ZU
