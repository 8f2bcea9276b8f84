#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <zuhost/zuerror.h>

namespace ZU {

/// A failed call to etcd: no endpoint answered, or one answered with an error.
/// `refused()` is true when every endpoint refused the connection outright (no
/// etcd listens there); `answered()` when etcd replied and turned the request
/// down (asking again would not help).
class ZUEtcdError : public ZUError {
 public:
  ZUEtcdError(const std::string& method, const std::string& description, bool refused,
              bool answered);
  bool refused() const { return refused_; }
  bool answered() const { return answered_; }

 private:
  bool refused_;
  bool answered_;
};

/// One key of etcd with the revisions a lock needs.
struct ZUEtcdKeyValue {
  std::string key;
  std::string value;
  std::int64_t createRevision = 0;
  std::int64_t lease = 0;
};

/// A lease as etcd granted it: its id and its TTL in seconds, which may be
/// longer than the TTL asked (etcd has a minimum).
struct ZUEtcdLease {
  std::int64_t id = 0;
  std::int64_t ttlSeconds = 0;
};

/// One change seen by a watch: a key put (created or changed) or deleted.
struct ZUEtcdEvent {
  bool deleted = false;
  ZUEtcdKeyValue kv;
};

/// What a client has sent and received so far: requests, writes (grant,
/// put, delete, revoke) and bytes on the wire (request and response lines,
/// headers and bodies).
struct ZUEtcdTraffic {
  std::uint64_t requests = 0;
  std::uint64_t writes = 0;
  std::uint64_t bytes = 0;
};

/// The calls of etcd's v3 HTTP/JSON gateway that a fleet lock needs. Keys and
/// values are plain strings here (base64 on the wire). Each call tries the
/// endpoints in turn, starting with the one that answered last, and throws
/// ZUEtcdError when none answers.
///
/// Thread safety: thread safe; every call opens its own connection, so a
/// watch that streams for long blocks no other call. The endpoint list is
/// immutable, the preferred endpoint and the traffic counters are atomic.
class ZUEtcdClient {
 public:
  /// `endpoints`: "http://host:port", at least one. `timeoutMs` bounds the
  /// connection and each read of the unary calls.
  ZUEtcdClient(std::vector<std::string> endpoints, int timeoutMs);

  const std::vector<std::string>& endpoints() const { return endpoints_; }

  /// A new lease of `ttlSeconds`, as etcd granted it.
  ZUEtcdLease grant(int ttlSeconds);
  /// Renews `lease`; returns its TTL in seconds, 0 when it has expired or is
  /// unknown. `timeoutMs` (0: the client's) bounds the connection and each
  /// read.
  std::int64_t keepAlive(std::int64_t lease, int timeoutMs = 0);
  /// Revokes `lease`: its keys are deleted.
  void revoke(std::int64_t lease);
  /// Puts `key` = `value`, attached to `lease` (0: none). Returns the key's
  /// create revision (the put's own when the key is new).
  std::int64_t put(const std::string& key, const std::string& value, std::int64_t lease);
  /// The keys in [`key`, `rangeEnd`) created at or before `maxCreateRevision`
  /// (0: any), the most recently created first, at most `limit` (0: all).
  std::vector<ZUEtcdKeyValue> range(const std::string& key, const std::string& rangeEnd,
                                    std::int64_t maxCreateRevision, std::int64_t limit);
  /// Deletes `key`.
  void erase(const std::string& key);
  /// Streams the changes of [`key`, `rangeEnd`) from `startRevision` on to
  /// `onEvents` (the events of one revision batch, and the revision the
  /// server had then) until `onEvents` returns false, or the stream ends or
  /// stays silent for `idleMs`. Returns 0, or, when etcd canceled the watch,
  /// the oldest revision it still keeps (after a compaction) or -1. Throws
  /// ZUEtcdError when it cannot connect.
  std::int64_t watch(
      const std::string& key, const std::string& rangeEnd, std::int64_t startRevision, int idleMs,
      const std::function<bool(const std::vector<ZUEtcdEvent>&, std::int64_t)>& onEvents);

  ZUEtcdTraffic traffic() const;

  /// The end of the range of all keys that start with `prefix`.
  static std::string prefixEnd(std::string prefix);

 private:
  /// POSTs `body` (JSON) to `path`; the reply's body. `timeoutMs` 0: the
  /// client's.
  std::string call(const std::string& path, const std::string& body, bool write,
                   int timeoutMs = 0);

  /// Immutable.
  const std::vector<std::string> endpoints_;
  /// Immutable.
  const int timeoutMs_;
  /// Atomic: index of the endpoint that answered last.
  std::atomic<std::size_t> preferred_{0};
  /// Atomic counters (see ZUEtcdTraffic).
  std::atomic<std::uint64_t> requests_{0}, writes_{0}, bytes_{0};
};

}  // namespace ZU
