#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <zufleet/zuetcdclient.h>

namespace ZU {

class ZUResourceFleet;

/// How a robot joins the fleet.
struct ZUFleetConfig {
  /// etcd's client URLs ("http://host:port"), any member of one cluster.
  std::vector<std::string> endpoints;
  /// This robot's name; the value of its keys, so that others see who waits.
  std::string robot;
  /// The lease's time to live: a robot that stops renewing it loses its
  /// fleet resources this long after its last renewal.
  int ttlSeconds = 5;
  /// Where the fleet's keys live in etcd.
  std::string prefix = "/zufleet/";
  /// Time limit of one call to etcd (connection and reply).
  int callTimeoutMs = 2000;
};

/// One robot's membership of the fleet: its connection to etcd, its one lease
/// (renewed by a keep-alive thread) and one watch on the fleet's keys (a
/// watch thread that wakes waiters when the key ahead of them goes and tells
/// holders when another robot asks). Fleet resources share their robot's
/// session. The lease is granted at the first fleet wait; when it is lost
/// (etcd says it expired, or etcd stayed unreachable for longer than its
/// TTL), every fleet resource of the robot gives its grant up (observers
/// receive a Lost event), and the next wait takes a new lease.
///
/// Thread safety: thread safe. The session's state is in a core shared with
/// its two threads, guarded by the core's one mutex, which is never held
/// while etcd, a resource, a module or an observer is called. The
/// destructor stops and joins the threads (a thread that drops the last
/// handle itself is let go instead, and ends at once).
class ZUFleetSession {
 public:
  /// Starts the two threads; etcd is first called by the first fleet wait.
  /// Throws ZUError for a config without endpoints or robot name, or with a
  /// TTL under 1 s.
  explicit ZUFleetSession(ZUFleetConfig config);
  /// Revokes nothing: the keys of a robot that leaves without giving its
  /// resources back go when its lease expires.
  ~ZUFleetSession();
  ZUFleetSession(const ZUFleetSession&) = delete;
  ZUFleetSession& operator=(const ZUFleetSession&) = delete;

  const ZUFleetConfig& config() const;
  ZUEtcdClient& client();

  // --- For fleet resources. --------------------------------------------------

  /// The lease, granted now if the robot has none. Throws ZUEtcdError.
  std::int64_t lease();
  /// The prefix of the keys of fleet resource `name`, and this robot's key
  /// under it for `lease`.
  std::string resourcePrefix(const std::string& name) const;
  std::string keyOf(const std::string& name, std::int64_t lease) const;
  /// Blocks until the watch has started (it then misses no later change), or
  /// `until` passes. True when it has started.
  bool awaitWatch(std::chrono::steady_clock::time_point until);
  /// The number of deletions the watch has seen so far.
  std::uint64_t deletions() const;
  /// Blocks until the watch has seen `key` deleted after deletion number
  /// `since`, `until` passes, `lease` is no longer the robot's lease or the
  /// session stops. True when the key was deleted.
  bool awaitDeletion(const std::string& key, std::uint64_t since, std::int64_t lease,
                     std::chrono::steady_clock::time_point until);
  /// Deletes `key` now, or later, when etcd answers again.
  void erase(const std::string& key);
  /// Registers `resource` for the watch's news and the lease's loss, until it
  /// is destroyed.
  void attach(const boost::shared_ptr<ZUResourceFleet>& resource);
  void detach(const std::string& name);

  struct Core;

 private:
  std::shared_ptr<Core> core_;
  std::thread keepAlive_;
  std::thread watch_;
};

}  // namespace ZU
