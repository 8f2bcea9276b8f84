#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>

#include <nlohmann/json.hpp>

#include <zufleet/zuetcdclient.h>

namespace ZU {

namespace {
const char* const kFile = "fleet/zufleet/zuetcdclient";
using json = nlohmann::json;

const char kCutOff[] = "etcd unreachable: cut off from the network";

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

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
    v = (v << 6) | static_cast<unsigned>(at - kAlphabet);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += static_cast<char>((v >> bits) & 0xff);
    }
  }
  return out;
}

// etcd's gateway writes 64-bit numbers as strings and leaves out zeros.
std::int64_t number(const json& object, const char* field) {
  auto found = object.find(field);
  if (found == object.end()) return 0;
  return found->is_string() ? std::stoll(found->get<std::string>()) : found->get<std::int64_t>();
}

ZUEtcdKeyValue keyValue(const json& kv) {
  ZUEtcdKeyValue result;
  result.key = decode64(kv.value("key", ""));
  result.value = decode64(kv.value("value", ""));
  result.createRevision = number(kv, "create_revision");
  result.lease = number(kv, "lease");
  return result;
}

std::size_t headerBytes(const httplib::Headers& headers) {
  std::size_t bytes = 0;
  for (const auto& header : headers) bytes += header.first.size() + header.second.size() + 4;
  return bytes;
}

// A failed connection that did not last its whole time limit was refused.
bool wasRefused(httplib::Error error, std::chrono::steady_clock::time_point start, int timeoutMs) {
  const auto took = std::chrono::steady_clock::now() - start;
  return error == httplib::Error::Connection && took < std::chrono::milliseconds(timeoutMs / 2);
}

std::unique_ptr<httplib::Client> connect(const std::string& endpoint, int timeoutMs) {
  auto client = std::make_unique<httplib::Client>(endpoint);
  const auto timeout = std::chrono::milliseconds(timeoutMs);
  client->set_connection_timeout(timeout);
  client->set_read_timeout(timeout);
  client->set_write_timeout(timeout);
  return client;
}
}  // namespace

ZUEtcdError::ZUEtcdError(const std::string& method, const std::string& description, bool refused,
                         bool answered)
    : ZUError("ZUEtcdClient", method, description, kFile, 0),
      refused_(refused),
      answered_(answered) {}

ZUEtcdClient::ZUEtcdClient(std::vector<std::string> endpoints, int timeoutMs)
    : endpoints_(std::move(endpoints)), timeoutMs_(timeoutMs) {
  if (endpoints_.empty())
    throw ZUError("ZUEtcdClient", "ZUEtcdClient", "no etcd endpoint given", kFile, __LINE__);
}

ZUEtcdTraffic ZUEtcdClient::traffic() const {
  ZUEtcdTraffic t;
  t.requests = requests_.load();
  t.writes = writes_.load();
  t.bytes = bytes_.load();
  return t;
}

std::string ZUEtcdClient::prefixEnd(std::string prefix) {
  while (!prefix.empty()) {
    if (static_cast<unsigned char>(prefix.back()) < 0xff) {
      ++prefix.back();
      return prefix;
    }
    prefix.pop_back();
  }
  return std::string(1, '\0');  // every key
}

std::string ZUEtcdClient::call(const std::string& path, const std::string& body, bool write) {
  if (cutOff_) throw ZUEtcdError(path, kCutOff, false, false);
  std::string failures;
  bool allRefused = true, answered = false;
  const std::size_t first = preferred_.load();
  for (std::size_t n = 0; n < endpoints_.size(); ++n) {
    const std::size_t index = (first + n) % endpoints_.size();
    auto client = connect(endpoints_[index], timeoutMs_);
    const auto start = std::chrono::steady_clock::now();
    httplib::Result res = client->Post(path.c_str(), body, "application/json");
    ++requests_;
    if (write) ++writes_;
    bytes_ += path.size() + body.size() + 64;  // request line and our few headers
    if (res) {
      bytes_ += res->body.size() + headerBytes(res->headers) + 17;  // status line
      if (res->status == 200) {
        preferred_ = index;
        return res->body;
      }
      allRefused = false;
      answered = true;
      failures += " " + endpoints_[index] + ": HTTP " + std::to_string(res->status) + " " +
                  res->body.substr(0, 200) + ";";
      continue;
    }
    const bool refused = wasRefused(res.error(), start, timeoutMs_);
    allRefused = allRefused && refused;
    failures += " " + endpoints_[index] + ": " +
                (refused ? std::string("connection refused") : httplib::to_string(res.error())) +
                ";";
  }
  failures.pop_back();
  throw ZUEtcdError(path, (answered ? "etcd refused the request:" : "etcd unreachable:") + failures,
                    allRefused, answered);
}

std::int64_t ZUEtcdClient::grant(int ttlSeconds) {
  return number(json::parse(call("/v3/lease/grant", json{{"TTL", ttlSeconds}}.dump(), true)), "ID");
}

std::int64_t ZUEtcdClient::keepAlive(std::int64_t lease) {
  const json reply =
      json::parse(call("/v3/lease/keepalive", json{{"ID", std::to_string(lease)}}.dump(), false));
  return number(reply.value("result", json::object()), "TTL");
}

void ZUEtcdClient::revoke(std::int64_t lease) {
  call("/v3/lease/revoke", json{{"ID", std::to_string(lease)}}.dump(), true);
}

std::int64_t ZUEtcdClient::put(const std::string& key, const std::string& value,
                               std::int64_t lease) {
  json request{{"key", encode64(key)}, {"value", encode64(value)}, {"prev_kv", true}};
  if (lease != 0) request["lease"] = std::to_string(lease);
  const json reply = json::parse(call("/v3/kv/put", request.dump(), true));
  // A put that is retried finds its own key: its creation is the first put.
  auto previous = reply.find("prev_kv");
  if (previous != reply.end()) return number(*previous, "create_revision");
  return number(reply.value("header", json::object()), "revision");
}

std::vector<ZUEtcdKeyValue> ZUEtcdClient::range(const std::string& key, const std::string& rangeEnd,
                                                std::int64_t maxCreateRevision,
                                                std::int64_t limit) {
  json request{{"key", encode64(key)},
               {"range_end", encode64(rangeEnd)},
               {"sort_target", "CREATE"},
               {"sort_order", "DESCEND"}};
  if (maxCreateRevision != 0) request["max_create_revision"] = std::to_string(maxCreateRevision);
  if (limit != 0) request["limit"] = std::to_string(limit);
  const json reply = json::parse(call("/v3/kv/range", request.dump(), false));
  std::vector<ZUEtcdKeyValue> result;
  for (const json& kv : reply.value("kvs", json::array())) result.push_back(keyValue(kv));
  return result;
}

std::int64_t ZUEtcdClient::count(const std::string& key, const std::string& rangeEnd,
                                 std::int64_t minCreateRevision) {
  // The count of a filtered range is taken before the filter; the keys are not.
  json request{{"key", encode64(key)},
               {"range_end", encode64(rangeEnd)},
               {"keys_only", true},
               {"min_create_revision", std::to_string(minCreateRevision)}};
  const json reply = json::parse(call("/v3/kv/range", request.dump(), false));
  return static_cast<std::int64_t>(reply.value("kvs", json::array()).size());
}

void ZUEtcdClient::erase(const std::string& key) {
  call("/v3/kv/deleterange", json{{"key", encode64(key)}}.dump(), true);
}

std::int64_t ZUEtcdClient::watch(
    const std::string& key, const std::string& rangeEnd, std::int64_t startRevision, int idleMs,
    const std::function<bool(const std::vector<ZUEtcdEvent>&, std::int64_t)>& onEvents) {
  if (cutOff_) throw ZUEtcdError("/v3/watch", kCutOff, false, false);
  const json create{{"create_request",
                     {{"key", encode64(key)},
                      {"range_end", encode64(rangeEnd)},
                      {"start_revision", std::to_string(startRevision)}}}};
  const std::size_t index = preferred_.load() % endpoints_.size();
  const std::size_t next = (index + 1) % endpoints_.size();
  auto client = connect(endpoints_[index], timeoutMs_);
  client->set_read_timeout(std::chrono::milliseconds(idleMs));

  httplib::Request request;
  request.method = "POST";
  request.path = "/v3/watch";
  request.body = create.dump();
  request.set_header("Content-Type", "application/json");
  std::string pending;
  std::int64_t canceled = 0;
  request.content_receiver = [&](const char* data, std::size_t size, std::uint64_t, std::uint64_t) {
    if (cutOff_) return false;
    bytes_ += size;
    pending.append(data, size);
    for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
      const json message = json::parse(pending.substr(0, end), nullptr, false);
      pending.erase(0, end + 1);
      if (message.is_discarded() || !message.contains("result")) return false;
      const json& result = message["result"];
      if (result.value("canceled", false)) {
        canceled = std::max<std::int64_t>(number(result, "compact_revision"), -1);
        if (canceled == 0) canceled = -1;
        return false;
      }
      std::vector<ZUEtcdEvent> events;
      for (const json& event : result.value("events", json::array())) {
        ZUEtcdEvent e;
        e.deleted = event.value("type", "PUT") == "DELETE";
        e.kv = keyValue(event.value("kv", json::object()));
        events.push_back(std::move(e));
      }
      if (!onEvents(events, number(result.value("header", json::object()), "revision")))
        return false;
    }
    return true;
  };
  ++requests_;
  const auto start = std::chrono::steady_clock::now();
  httplib::Result res = client->send(request);
  // A failed or broken stream moves on to the next endpoint. Any end but a
  // failed connection (the stream closed, went silent, or we stopped it) is
  // the caller's to resume from the revision it saw last.
  if (!res && res.error() != httplib::Error::Canceled) preferred_ = next;
  if (!res && res.error() == httplib::Error::Connection)
    throw ZUEtcdError("/v3/watch", "etcd unreachable: " + endpoints_[index],
                      wasRefused(res.error(), start, timeoutMs_), false);
  return canceled;
}

}  // namespace ZU
