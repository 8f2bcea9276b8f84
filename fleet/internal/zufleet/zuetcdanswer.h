#pragma once

// The decoding of etcd's JSON answers, one function per kind of answer, each
// over the answer's text alone (so that it can be fed any bytes). A text that
// is not the answer expected (not JSON, a field of the wrong type, a number
// out of range) throws ZUEtcdError as a failed call does (neither refused nor
// answered): never another exception, never a crash. Not installed.

#include <cstdint>
#include <string>
#include <vector>

#include <zufleet/zuetcdclient.h>

namespace ZU {
namespace etcdanswer {

/// Thread safety: stateless functions, callable from any thread.

/// A lease grant: its id and the TTL (seconds) that etcd granted.
ZUEtcdLease grant(const std::string& text);
/// A keep-alive: the lease's TTL in seconds, 0 when it expired or is unknown.
std::int64_t keepAlive(const std::string& text);
/// A put with prev_kv: the key's create revision (the first put's when the
/// key existed, else the put's own revision).
std::int64_t put(const std::string& text);
/// A range: its keys, in etcd's order.
std::vector<ZUEtcdKeyValue> range(const std::string& text);

/// One message of a watch stream.
struct WatchMessage {
  /// etcd canceled the watch: `compactRevision` is then the oldest revision
  /// it keeps, or -1 when it gave none.
  bool canceled = false;
  std::int64_t compactRevision = 0;
  std::int64_t revision = 0;  // the server's revision when it sent the message
  std::vector<ZUEtcdEvent> events;
};
/// One line of a watch stream.
WatchMessage watchLine(const std::string& text);

/// Base64 of etcd's gateway; decode skips what is not of the alphabet.
std::string encode64(const std::string& in);
std::string decode64(const std::string& in);

}  // namespace etcdanswer
}  // namespace ZU
