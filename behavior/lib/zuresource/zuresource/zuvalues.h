#pragma once

#include <string>
#include <utility>

#include <zuhost/zuvalue.h>

namespace ZU {

/// Builders of the values the library's reports are made of. Plain functions
/// of their arguments; no shared state.

/// An array value with no elements. The host's value becomes an array by its
/// first push, so the only way to an empty one is to push and take it away.
inline ZUValue emptyArrayValue() {
  ZUValue list;
  list.arrayPush(ZUValue());
  list.arrayPopFront();
  return list;
}

/// Appends the pair [key, field] to `value` (made an array if invalid).
inline void pushKeyValue(ZUValue& value, const std::string& key, ZUValue field) {
  ZUValue pair;
  pair.arrayPush(ZUValue(key));
  pair.arrayPush(std::move(field));
  value.arrayPush(std::move(pair));
}

}  // namespace ZU
