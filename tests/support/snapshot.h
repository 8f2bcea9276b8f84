#pragma once

// Reading the snapshot a service or its live page sends (its JSON text).

#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace zutest {

using Held = std::map<std::string, std::vector<std::string>>;

/// Each resource that somebody holds, with its holders in the snapshot's order.
inline Held heldIn(const std::string& snapshotJson) {
  const auto snapshot = nlohmann::json::parse(snapshotJson);
  Held held;
  for (const auto& r : snapshot.at("resources"))
    if (!r.value("holders", nlohmann::json::array()).empty()) held[r.at("name")] = r.at("holders");
  return held;
}

}  // namespace zutest
