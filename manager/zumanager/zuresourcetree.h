#pragma once

// A robot's resource tree as a file declares it: plain, state and fleet
// resources and the groups made of them, checked as a whole (every member
// known, no group inside itself, nesting bounded) before anything uses it.

#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

#include "zumanager/zuinputerror.h"

namespace ZU {

/// How deep groups may nest: a group of plain resources is one level. Each
/// level is a lock held while a request walks it, and the thread sanitizer
/// follows at most 64 locks held by one thread.
const int kMaxTreeNesting = 32;
/// What separates a robot's name from its resource's in a file with robots:
/// "courier1/Lift".
const char kRobotSeparator = '/';

enum class ZUTreeKind { Plain, State, Group };

/// A resource. In a file with robots, `name` is "robot/name" and `robot` its
/// robot's number; else `robot` is -1.
struct ZUTreeResource {
  std::string name;
  ZUTreeKind kind = ZUTreeKind::Plain;
  bool fleet = false;  // a plain resource shared by the robots that declare its name
  int robot = -1;
  std::string libraryName;           // the resource's own name: the bare name of a fleet resource
  bool activated = false;            // state resources: activated at the start
  std::vector<std::string> members;  // groups: member names, in order
  long graceMs = -1;                 // the grace period before a take, in ms; -1: not given
  std::string fallback;              // the owner that holds it while nobody else does, if any
};

/// The resources of a file, in declaration order, and their index by name.
/// A value: copy it freely; not to be changed while another thread reads it.
struct ZUResourceTree {
  std::vector<ZUTreeResource> resources;
  // Name -> position in `resources`; filled in as resources are read.
  std::unordered_map<std::string, std::size_t> resourceIndex;

  const ZUTreeResource* findResource(const std::string& name) const;
  /// The plain and state resources inside `name` (itself when it is one),
  /// in member order, each once.
  std::vector<std::string> leavesOf(const std::string& name) const;
  /// The resources that are no group's member, in declaration order.
  std::vector<std::string> roots() const;
  /// Whether a resource is a fleet resource.
  bool hasFleet() const;
};

/// Parses and checks a file of one robot's tree, `{"resources": [...]}`;
/// `file` names it in messages. Throws ZUInputError.
ZUResourceTree parseResourceTree(const std::string& text, const std::string& file);
/// Reads and parses the regular file at `path`. Throws ZUInputError.
ZUResourceTree loadResourceTree(const std::string& path);

}  // namespace ZU
