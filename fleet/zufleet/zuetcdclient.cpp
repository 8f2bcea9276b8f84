#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>

#include <nlohmann/json.hpp>

#include <zufleet/zuetcdanswer.h>
#include <zufleet/zuetcdclient.h>

namespace ZU {

using etcdanswer::encode64;

namespace {
const char* const kFile = "fleet/zufleet/zuetcdclient";
using json = nlohmann::json;


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

std::string ZUEtcdClient::call(const std::string& path, const std::string& body, bool write,
                               int timeoutMs) {
  if (timeoutMs <= 0) timeoutMs = timeoutMs_;
  std::string failures;
  bool allRefused = true, answered = false;
  const std::size_t first = preferred_.load();
  for (std::size_t n = 0; n < endpoints_.size(); ++n) {
    const std::size_t index = (first + n) % endpoints_.size();
    auto client = connect(endpoints_[index], timeoutMs);
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
    const bool refused = wasRefused(res.error(), start, timeoutMs);
    allRefused = allRefused && refused;
    failures += " " + endpoints_[index] + ": " +
                (refused ? std::string("connection refused") : httplib::to_string(res.error())) +
                ";";
  }
  failures.pop_back();
  throw ZUEtcdError(path, (answered ? "etcd refused the request:" : "etcd unreachable:") + failures,
                    allRefused, answered);
}

ZUEtcdLease ZUEtcdClient::grant(int ttlSeconds) {
  return etcdanswer::grant(call("/v3/lease/grant", json{{"TTL", ttlSeconds}}.dump(), true));
}

std::int64_t ZUEtcdClient::keepAlive(std::int64_t lease, int timeoutMs) {
  return etcdanswer::keepAlive(call("/v3/lease/keepalive",
                                    json{{"ID", std::to_string(lease)}}.dump(), false, timeoutMs));
}

void ZUEtcdClient::revoke(std::int64_t lease) {
  call("/v3/lease/revoke", json{{"ID", std::to_string(lease)}}.dump(), true);
}

std::int64_t ZUEtcdClient::put(const std::string& key, const std::string& value,
                               std::int64_t lease) {
  json request{{"key", encode64(key)}, {"value", encode64(value)}, {"prev_kv", true}};
  if (lease != 0) request["lease"] = std::to_string(lease);
  return etcdanswer::put(call("/v3/kv/put", request.dump(), true));
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
  return etcdanswer::range(call("/v3/kv/range", request.dump(), false));
}

void ZUEtcdClient::erase(const std::string& key) {
  call("/v3/kv/deleterange", json{{"key", encode64(key)}}.dump(), true);
}

std::int64_t ZUEtcdClient::watch(
    const std::string& key, const std::string& rangeEnd, std::int64_t startRevision, int idleMs,
    const std::function<bool(const std::vector<ZUEtcdEvent>&, std::int64_t)>& onEvents) {
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
    bytes_ += size;
    pending.append(data, size);
    for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
      const std::string line = pending.substr(0, end);
      pending.erase(0, end + 1);
      etcdanswer::WatchMessage message;
      try {
        message = etcdanswer::watchLine(line);
      } catch (const ZUEtcdError&) {
        return false;  // a garbled stream is opened again by the caller
      }
      if (message.canceled) {
        canceled = message.compactRevision;
        return false;
      }
      if (!onEvents(message.events, message.revision)) return false;
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
