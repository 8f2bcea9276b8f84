#include "zumanager/zujsonreader.h"

#include <algorithm>
#include <unordered_set>

namespace ZU {

using nlohmann::json;

void ZUJsonEntry::allow(std::initializer_list<const char*> known) const {
  for (auto it = value_.begin(); it != value_.end(); ++it) {
    if (std::none_of(known.begin(), known.end(), [&](const char* k) { return it.key() == k; }))
      fail("unknown field " + quoteName(it.key()));
  }
}

std::string ZUJsonEntry::text(const char* key, const std::string& fallback, bool required) const {
  if (!has(key)) {
    if (required) fail(std::string("missing field \"") + key + "\"");
    return fallback;
  }
  const json& v = value_.at(key);
  if (!v.is_string()) fail(std::string("\"") + key + "\" must be a string");
  return v.get<std::string>();
}

std::string ZUJsonEntry::name(const char* key, const char* what) const {
  std::string n = text(key);
  if (n.empty()) fail(std::string("empty ") + what + " name");
  return n;
}

long ZUJsonEntry::integer(const char* key, long fallback, long least, long most,
                          bool required) const {
  if (!has(key)) {
    if (required) fail(std::string("missing field \"") + key + "\"");
    return fallback;
  }
  const json& v = value_.at(key);
  // The reader keeps an integer of 0 or more unsigned, a negative one
  // signed, and one too large for either as a float.
  bool inRange =
      v.is_number_unsigned()
          ? v.get<std::uint64_t>() <= static_cast<std::uint64_t>(most) &&
                (least <= 0 || v.get<std::uint64_t>() >= static_cast<std::uint64_t>(least))
      : v.is_number_integer() ? v.get<std::int64_t>() >= least && v.get<std::int64_t>() <= most
                              : false;
  if (!inRange)
    fail(std::string("\"") + key + "\" must be an integer from " + std::to_string(least) + " to " +
         std::to_string(most) + ", not " + v.dump());
  return static_cast<long>(v.get<std::int64_t>());
}

std::pair<long, long> ZUJsonEntry::timeRange(const char* key, long most) const {
  const json& v = value_.at(key);
  auto time = [most](const json& t) {
    return t.is_number_unsigned() && t.get<std::uint64_t>() <= static_cast<std::uint64_t>(most);
  };
  if (!v.is_array() || v.size() != 2 || !time(v[0]) || !time(v[1]) || v[0] > v[1])
    fail(std::string("\"") + key + "\" must be [from, to], two times in ms from 0 to " +
         std::to_string(most) + " with from <= to, not " + v.dump());
  return {v[0].get<long>(), v[1].get<long>()};
}

bool ZUJsonEntry::boolean(const char* key) const {
  if (!has(key)) fail(std::string("missing field \"") + key + "\"");
  const json& v = value_.at(key);
  if (!v.is_boolean()) fail(std::string("\"") + key + "\" must be true or false");
  return v.get<bool>();
}

std::vector<std::string> ZUJsonEntry::texts(const char* key) const {
  std::vector<std::string> out;
  if (!has(key)) return out;
  const json& v = value_.at(key);
  if (!v.is_array()) fail(std::string("\"") + key + "\" must be an array of strings");
  for (const json& e : v) {
    if (!e.is_string()) fail(std::string("\"") + key + "\" must be an array of strings");
    out.push_back(e.get<std::string>());
  }
  return out;
}

void forEachEntry(const json& top, const char* key, const std::string& file,
                  const std::function<void(const ZUJsonEntry&)>& each, const std::string& within) {
  if (!top.contains(key)) return;
  const json& list = top.at(key);
  if (!list.is_array())
    throw ZUInputError(file + ": " + within + "\"" + key + "\" must be an array");
  for (std::size_t i = 0; i < list.size(); ++i)
    each(ZUJsonEntry(list[i], file, within + key + "[" + std::to_string(i) + "]"));
}

void consumeEachEntry(json& top, const char* key, const std::string& file,
                      const std::function<void(const ZUJsonEntry&)>& each,
                      const std::string& within) {
  if (!top.contains(key)) return;
  json& list = top.at(key);
  if (!list.is_array())
    throw ZUInputError(file + ": " + within + "\"" + key + "\" must be an array");
  for (std::size_t i = 0; i < list.size(); ++i) {
    each(ZUJsonEntry(list[i], file, within + key + "[" + std::to_string(i) + "]"));
    list[i] = nullptr;  // frees what the element held; the positions stay
  }
}

namespace {

/// Reads through a JSON text without building it, refusing an object that
/// has one key twice. Names the entry ("actions[3]") where it can.
class DuplicateKeys : public nlohmann::json_sax<json> {
 public:
  DuplicateKeys(const std::string& file, const char* whole) : file_(file), whole_(whole) {}

  bool null() override { return value(); }
  bool boolean(bool) override { return value(); }
  bool number_integer(number_integer_t) override { return value(); }
  bool number_unsigned(number_unsigned_t) override { return value(); }
  bool number_float(number_float_t, const string_t&) override { return value(); }
  bool string(string_t&) override { return value(); }
  bool binary(binary_t&) override { return value(); }
  bool start_object(std::size_t) override { return open(false); }
  bool start_array(std::size_t) override { return open(true); }
  bool end_object() override { return close(); }
  bool end_array() override { return close(); }
  bool key(string_t& key) override {
    Level& object = levels_.back();
    object.key = key;
    if (!object.keys.insert(key).second)
      throw ZUInputError(file_ + ": " + where() + ": key " + quoteName(key) + " given twice");
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
    return false;  // the parse that builds the value reports it
  }

 private:
  struct Level {
    bool array = false;
    std::size_t elements = 0;  // arrays: the elements begun so far
    std::string key;           // objects: the latest key
    std::unordered_set<std::string> keys;
  };

  bool value() {
    if (!levels_.empty() && levels_.back().array) ++levels_.back().elements;
    return true;
  }
  bool open(bool array) {
    value();
    levels_.push_back(Level{array, 0, std::string(), {}});
    return true;
  }
  bool close() {
    levels_.pop_back();
    return true;
  }
  /// "actions[3]" for the object being read; the whole's name for the whole.
  std::string where() const {
    std::string path;
    for (std::size_t i = 0; i + 1 < levels_.size(); ++i)
      path += levels_[i].array ? "[" + std::to_string(levels_[i].elements - 1) + "]"
                               : (path.empty() ? "" : ".") + levels_[i].key;
    return path.empty() ? std::string(whole_) : path;
  }

  const std::string& file_;
  const char* whole_;
  std::vector<Level> levels_;
};

}  // namespace

json readJson(const std::string& text, const std::string& file, const char* whole) {
  DuplicateKeys duplicates(file, whole);
  json::sax_parse(text, &duplicates);
  try {
    return json::parse(text);
  } catch (const json::exception& e) {  // a syntax error, or a number too large (out_of_range)
    throw ZUInputError(file + ": not JSON: " + e.what());
  }
}

}  // namespace ZU
