#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
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
  /// The lease's time to live asked of etcd, 1 s or more. etcd may grant a
  /// longer one (its minimum, 2 s by default): then the TTL granted counts,
  /// and the difference is logged once. A robot that cannot renew its lease
  /// gives its fleet resources up the TTL less a margin (a tenth of it, at
  /// least 100 ms) after it sent its last renewal that succeeded, before
  /// etcd could expire it.
  int ttlSeconds = 5;
  /// Where the fleet's keys live in etcd.
  std::string prefix = "/zufleet/";
  /// Time limit of one call to etcd (connection and reply).
  int callTimeoutMs = 2000;
};

/// One robot's membership of the fleet: its connection to etcd, its one lease
/// (renewed by a keep-alive thread and watched by a guard thread) and one
/// watch on the fleet's keys (a watch thread that wakes waiters when the key
/// ahead of them goes and tells holders when another robot asks). Fleet
/// resources share their robot's session. The lease is granted at the first
/// fleet wait. It is lost when etcd says it expired, or when no renewal
/// succeeded by its deadline (the sending of the last renewal that succeeded
/// plus the granted TTL less the margin, see ZUFleetConfig::ttlSeconds); the
/// guard gives it up at that deadline even while a renewal call still hangs.
/// Then every fleet resource of the robot gives its grant up (observers
/// receive a Lost event), every wait of the robot fails with the fleet-loss
/// error, and the next wait takes a new lease.
///
/// Thread safety: thread safe. The session's state is in a core shared with
/// its three threads, guarded by the core's one mutex, which is never held
/// while etcd, a resource, a module or an observer is called. The
/// destructor stops and joins the threads (a thread that drops the last
/// handle itself is let go instead, and ends at once).
class ZUFleetSession {
 public:
  /// Starts the three threads; etcd is first called by the first fleet wait.
  /// Throws ZUError for a config without endpoints or robot name, or with a
  /// TTL under 1 s or a call time limit under 1 ms.
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
  /// Takes: the core's mutex, not across the call to etcd.
  std::int64_t lease();
  /// The TTL etcd granted the current lease; 0 while there is none.
  std::chrono::milliseconds leaseTtl() const;
  /// Nothing while `lease` is the robot's lease and its deadline has not
  /// passed; else why it is no longer held (a lease whose deadline passed is
  /// given up now). Takes: the core's mutex, then as loseLease (no lock).
  std::optional<std::string> lossOf(std::int64_t lease);
  /// Gives `lease` up now for `reason`, if it is still the robot's lease
  /// (its key was seen gone). No lock held while resources are told.
  void lose(std::int64_t lease, const std::string& reason);
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
  std::thread guard_;
  std::thread watch_;
};

}  // namespace ZU
