#include <algorithm>
#include <cstring>
#include <limits>

#include <nlohmann/json.hpp>

#include <zufleet/zuetcdanswer.h>

namespace ZU {
namespace etcdanswer {

namespace {
using json = nlohmann::json;

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

struct Malformed {
  std::string what;
};

// etcd's gateway writes 64-bit numbers as strings and leaves out zeros.
std::int64_t number(const json& object, const char* field) {
  if (!object.is_object()) throw Malformed{std::string("no object around \"") + field + "\""};
  auto found = object.find(field);
  if (found == object.end()) return 0;
  if (found->is_number_integer()) return found->get<std::int64_t>();
  if (found->is_number_unsigned()) {
    if (found->get<std::uint64_t>() > std::uint64_t(std::numeric_limits<std::int64_t>::max()))
      throw Malformed{std::string("\"") + field + "\" out of range"};
    return found->get<std::int64_t>();
  }
  if (found->is_string()) {
    const std::string& digits = found->get_ref<const std::string&>();
    std::size_t used = 0;
    std::int64_t value = 0;
    try {
      value = std::stoll(digits, &used);
    } catch (const std::exception&) {
      used = 0;
    }
    if (used == 0 || used != digits.size())
      throw Malformed{std::string("\"") + field + "\" is not a number"};
    return value;
  }
  throw Malformed{std::string("\"") + field + "\" is not a number"};
}

const json& member(const json& object, const char* field) {
  static const json kEmpty = json::object();
  if (!object.is_object()) throw Malformed{std::string("no object around \"") + field + "\""};
  auto found = object.find(field);
  return found == object.end() ? kEmpty : *found;
}

const json& array(const json& object, const char* field) {
  static const json kEmpty = json::array();
  if (!object.is_object()) throw Malformed{std::string("no object around \"") + field + "\""};
  auto found = object.find(field);
  if (found == object.end()) return kEmpty;
  if (!found->is_array()) throw Malformed{std::string("\"") + field + "\" is not a list"};
  return *found;
}

std::string text(const json& object, const char* field) {
  const json& value = member(object, field);
  if (value.is_object() && value.empty()) return "";
  if (!value.is_string()) throw Malformed{std::string("\"") + field + "\" is not a string"};
  return value.get<std::string>();
}

bool flag(const json& object, const char* field) {
  const json& value = member(object, field);
  if (value.is_object() && value.empty()) return false;
  if (!value.is_boolean()) throw Malformed{std::string("\"") + field + "\" is not a boolean"};
  return value.get<bool>();
}

ZUEtcdKeyValue keyValue(const json& kv) {
  ZUEtcdKeyValue result;
  result.key = decode64(text(kv, "key"));
  result.value = decode64(text(kv, "value"));
  result.createRevision = number(kv, "create_revision");
  result.lease = number(kv, "lease");
  return result;
}

// Parses `answer` and decodes it with `decode`; any flaw becomes ZUEtcdError.
template <typename Decode>
auto decoded(const char* kind, const std::string& answer, Decode decode) {
  try {
    const json parsed = json::parse(answer);
    return decode(parsed);
  } catch (const Malformed& m) {
    throw ZUEtcdError(kind, "etcd's answer is malformed: " + m.what, false, false);
  } catch (const std::exception& e) {
    throw ZUEtcdError(kind, std::string("etcd's answer is malformed: ") + e.what(), false, false);
  }
}
}  // namespace

std::string encode64(const std::string& in) {
  std::string out;
  out.reserve((in.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 2 < in.size(); i += 3) {
    const unsigned v = (static_cast<unsigned char>(in[i]) << 16) |
                       (static_cast<unsigned char>(in[i + 1]) << 8) |
                       static_cast<unsigned char>(in[i + 2]);
    for (int shift : {18, 12, 6, 0}) out += kAlphabet[(v >> shift) & 63];
  }
  if (i < in.size()) {
    const bool two = i + 1 < in.size();
    const unsigned v = (static_cast<unsigned char>(in[i]) << 16) |
                       (two ? static_cast<unsigned char>(in[i + 1]) << 8 : 0);
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += two ? kAlphabet[(v >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

std::string decode64(const std::string& in) {
  std::string out;
  unsigned v = 0;
  int bits = 0;
  for (char c : in) {
    const char* at = std::strchr(kAlphabet, c);
    if (c == '=' || c == '\0' || !at) continue;
    v = ((v << 6) | static_cast<unsigned>(at - kAlphabet)) & 0xffffff;
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += static_cast<char>((v >> bits) & 0xff);
    }
  }
  return out;
}

ZUEtcdLease grant(const std::string& answer) {
  return decoded("/v3/lease/grant", answer, [](const json& reply) {
    ZUEtcdLease lease;
    lease.id = number(reply, "ID");
    lease.ttlSeconds = number(reply, "TTL");
    if (lease.id == 0 || lease.ttlSeconds <= 0) throw Malformed{"no lease granted"};
    return lease;
  });
}

std::int64_t keepAlive(const std::string& answer) {
  return decoded("/v3/lease/keepalive", answer, [](const json& reply) {
    return std::max<std::int64_t>(0, number(member(reply, "result"), "TTL"));
  });
}

std::int64_t put(const std::string& answer) {
  return decoded("/v3/kv/put", answer, [](const json& reply) {
    // A put that is retried finds its own key: its creation is the first put.
    const json& previous = member(reply, "prev_kv");
    if (!previous.empty()) return number(previous, "create_revision");
    return number(member(reply, "header"), "revision");
  });
}

std::vector<ZUEtcdKeyValue> range(const std::string& answer) {
  return decoded("/v3/kv/range", answer, [](const json& reply) {
    std::vector<ZUEtcdKeyValue> result;
    for (const json& kv : array(reply, "kvs")) result.push_back(keyValue(kv));
    return result;
  });
}

WatchMessage watchLine(const std::string& answer) {
  return decoded("/v3/watch", answer, [](const json& message) {
    if (!message.is_object() || !message.contains("result"))
      throw Malformed{"no \"result\" in a watch message"};
    const json& result = member(message, "result");
    WatchMessage out;
    if (flag(result, "canceled")) {
      out.canceled = true;
      out.compactRevision = number(result, "compact_revision");
      if (out.compactRevision <= 0) out.compactRevision = -1;
      return out;
    }
    out.revision = number(member(result, "header"), "revision");
    for (const json& event : array(result, "events")) {
      ZUEtcdEvent e;
      const json& type = member(event, "type");
      e.deleted = type.is_string() && type.get<std::string>() == "DELETE";
      e.kv = keyValue(member(event, "kv"));
      out.events.push_back(std::move(e));
    }
    return out;
  });
}

}  // namespace etcdanswer
}  // namespace ZU
