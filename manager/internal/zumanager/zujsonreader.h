#pragma once

// Reading a JSON input file whose mistakes are refused with the file, the
// entry and the field: a key given twice, a misspelt field, a wrong type, a
// number out of range. A private header: it needs nlohmann-json.

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "zumanager/zuinputerror.h"

namespace ZU {

/// The JSON value of `text`; `file` names it in messages and `whole` the top
/// object ("scenario"). Refuses text that is not JSON (with the line and
/// column) and an object with one key twice: the later one would silently
/// win. Throws ZUInputError.
nlohmann::json readJson(const std::string& text, const std::string& file, const char* whole);

/// Reads the fields of one JSON object ("actions[3]" and so on) and throws
/// ZUInputError with the file, the entry and what is wrong. Keeps references
/// to the value: it lives no longer than the value.
class ZUJsonEntry {
 public:
  using json = nlohmann::json;

  ZUJsonEntry(const json& value, std::string file, std::string where)
      : value_(value), file_(std::move(file)), where_(std::move(where)) {
    if (!value_.is_object()) fail("must be a JSON object");
  }

  [[noreturn]] void fail(const std::string& what) const {
    throw ZUInputError(file_ + ": " + where_ + ": " + what);
  }
  const std::string& where() const { return where_; }
  const std::string& file() const { return file_; }
  const json& value() const { return value_; }

  /// Refuses any field not in `known`, so that a misspelt field is not
  /// silently ignored.
  void allow(std::initializer_list<const char*> known) const;
  bool has(const char* key) const { return value_.contains(key); }

  std::string text(const char* key, const std::string& fallback = std::string(),
                   bool required = true) const;
  /// A name: a string that is not empty.
  std::string name(const char* key, const char* what) const;
  std::string optionalText(const char* key) const { return text(key, "", false); }

  /// An integer from `least` (0 or below) to `most`, checked as written: a number the
  /// program cannot hold is refused, never wrapped.
  long integer(const char* key, long fallback, long least, long most, bool required = false) const;
  /// A time in ms, from 0 to `most`.
  long time(const char* key, long fallback, long most, bool required = false) const {
    return integer(key, fallback, 0, most, required);
  }
  /// A pair [lo, hi] of times in ms from 0 to `most`, lo <= hi.
  std::pair<long, long> timeRange(const char* key, long most) const;
  bool boolean(const char* key) const;
  std::vector<std::string> texts(const char* key) const;

 private:
  const json& value_;
  std::string file_;
  std::string where_;
};

/// Calls `each` with an entry for every element of the array `key` of `top`.
/// `within` names `top` in messages ("robots[1]."), empty for the whole.
void forEachEntry(const nlohmann::json& top, const char* key, const std::string& file,
                  const std::function<void(const ZUJsonEntry&)>& each,
                  const std::string& within = "");
/// Like forEachEntry(), but frees each element once `each` has read it, so
/// that a large file is never held twice, as JSON and as what it declares.
void consumeEachEntry(nlohmann::json& top, const char* key, const std::string& file,
                      const std::function<void(const ZUJsonEntry&)>& each,
                      const std::string& within = "");

}  // namespace ZU
