#pragma once

// A status value (a string, or an array of values) as JSON: a string, or an
// array. Private to the service.

#include <nlohmann/json.hpp>

#include <zuhost/zuvalue.h>

namespace ZU {
namespace service {

inline nlohmann::json valueJson(const ZUValue& value) {
  if (value.isString()) return value.asString();
  nlohmann::json array = nlohmann::json::array();
  if (!value.isArray()) return array;
  for (std::size_t i = 0; i < value.size(); ++i) array.push_back(valueJson(value[i]));
  return array;
}

}  // namespace service
}  // namespace ZU
