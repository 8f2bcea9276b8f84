#pragma once

// The resource tree's section of a larger JSON file (the simulator's
// scenario, the manager's configuration), read in steps. A private header:
// it needs nlohmann-json.

#include <string>

#include "zumanager/zujsonreader.h"
#include "zumanager/zuresourcetree.h"

namespace ZU {

/// Reads the "resources" array of `at` into `tree` and checks that every
/// group's members are known. Frees each element of the array once read. `within` names `at` in messages ("robots[1]."),
/// empty for the whole. The resources belong to robot number `robot` named
/// `robotName` (their names become "robotName/name"), or to no robot when
/// `robot` is -1; only a robot's resource may be of kind "fleet". Throws
/// ZUInputError.
void readResources(nlohmann::json& at, const std::string& file, const std::string& within,
                   int robot, const std::string& robotName, ZUResourceTree& tree);

/// Refuses a group that contains itself, directly or through other groups,
/// and groups nested deeper than kMaxTreeNesting. Call it once all resources
/// are read. Throws ZUInputError.
void checkNesting(const ZUResourceTree& tree, const std::string& file);

/// The name `key` of an entry of robot number `robot` (-1: none): no
/// separator in it, so that "robot/name" reads one way.
std::string robotLocalName(const ZUJsonEntry& e, const char* key, const char* what, int robot);

/// The resource `name`; refuses an unknown one as an error of `e`.
const ZUTreeResource& knownResource(const ZUJsonEntry& e, const ZUResourceTree& tree,
                                    const std::string& name);

}  // namespace ZU
