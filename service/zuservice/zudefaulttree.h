#pragma once

#include <string>

namespace ZU {
namespace service {

/// The bundled robot's resource tree, {"resources": [...]}: head, arms,
/// legs, the state resource "Standing" and groups of them. The service runs
/// on it when given no tree.
std::string defaultTreeJson();

}  // namespace service
}  // namespace ZU
