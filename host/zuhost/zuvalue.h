#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace ZU {

/// The host's variant value: invalid (default), a string, or an array of
/// values. New kinds (int, float, bool) can be added to `Type` without
/// breaking callers, who ask `type()` or the `is...()` tests.
///
/// Thread safety: a value is a plain object. Concurrent reads are safe;
/// any write needs external synchronisation.
class ZUValue {
 public:
  enum class Type { Invalid, String, Array };

  /// An invalid value (`isValid()` is false).
  ZUValue() = default;
  /// A string value holding `text` (any bytes, including NUL).
  explicit ZUValue(const std::string& text);
  explicit ZUValue(const char* text);

  Type type() const { return type_; }
  bool isValid() const { return type_ != Type::Invalid; }
  bool isString() const { return type_ == Type::String; }
  bool isArray() const { return type_ == Type::Array; }

  /// The text of a string value; throws ZUError for any other kind.
  const std::string& asString() const;
  /// Number of elements of an array; 0 for any other kind.
  std::size_t size() const;
  /// Element `i` of an array; throws ZUError when out of range or not an array.
  const ZUValue& operator[](std::size_t i) const;

  /// Appends `element`. An invalid value first becomes an empty array.
  /// Throws ZUError (and changes nothing) on a string value.
  void arrayPush(const ZUValue& element);
  /// The same, taking over `element`'s contents instead of copying them (a
  /// nested array is moved, not copied element by element).
  void arrayPush(ZUValue&& element);
  /// Removes the first element of an array. Does nothing on an empty array
  /// or on a value that is not an array.
  void arrayPopFront();

  /// One-line text form, JSON-compatible: an invalid value is `null`, a string
  /// is double-quoted with `"` `\` and control bytes escaped (`\n`, `\t`,
  /// `\u00XX`; other bytes pass through unchanged), an array is
  /// `[e1,e2,...]` with no spaces. Stable: reports and tests rely on it.
  std::string serializeToText() const;

  friend bool operator==(const ZUValue& a, const ZUValue& b);
  friend bool operator!=(const ZUValue& a, const ZUValue& b) { return !(a == b); }

 private:
  Type type_ = Type::Invalid;
  std::string string_;          // meaningful when type_ == String
  std::vector<ZUValue> array_;  // meaningful when type_ == Array
};

}  // namespace ZU
