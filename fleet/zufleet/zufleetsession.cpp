#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <iostream>
#include <map>

#include <zuhost/zumutex.h>
#include <zuhost/zuthreadannotations.h>

#include <zufleet/zufleetsession.h>
#include <zufleet/zuresourcefleet.h>

namespace ZU {

namespace {
const char* const kFile = "fleet/zufleet/zufleetsession";
/// A watch that hears nothing for this long is opened again.
const int kWatchIdleMs = 5000;
/// Pause before a watch that ended is opened again.
const int kWatchRetryMs = 200;
/// The key that a closing session writes to end its own watch at once.
const char* const kWakeKey = "~wake/";
/// How many of the latest deletions a session remembers.
const std::size_t kRecentDeletions = 256;
/// Pause before a renewal that failed is tried again.
const std::chrono::milliseconds kRenewRetry(100);
/// The shortest time limit of a renewal call, however near the deadline.
const int kRenewCallMinMs = 50;
/// How often leftover deletions and revocations are retried with no lease.
const std::chrono::milliseconds kSettle(1000);

using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

/// How long before etcd could expire a lease its holder gives it up: a tenth
/// of the TTL, at least 100 ms, for the clocks of robot and etcd that do not
/// run at quite the same rate.
Ms marginOf(Ms ttl) { return std::max(ttl / 10, Ms(100)); }

std::string seconds(Ms ms) {
  char text[32];
  if (ms.count() % 1000 == 0)
    std::snprintf(text, sizeof text, "%lld s", static_cast<long long>(ms.count() / 1000));
  else
    std::snprintf(text, sizeof text, "%lld ms", static_cast<long long>(ms.count()));
  return text;
}

// Resource names may hold any byte; in keys '/', '%' and unprintable bytes
// are escaped, so that no name's prefix is another name's prefix (and no
// name is the session's own "~wake").
std::string escapeName(const std::string& name) {
  std::string out;
  for (unsigned char c : name) {
    if (c == '/' || c == '%' || c == '~' || c < 0x21 || c > 0x7e) {
      char hex[4];
      std::snprintf(hex, sizeof hex, "%%%02X", c);
      out += hex;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}
}  // namespace

/// The state shared by a session and its two threads.
struct ZUFleetSession::Core {
  /// Immutable.
  const ZUFleetConfig config;
  /// Thread safe.
  ZUEtcdClient client;

  /// Guards every field below.
  ZUMutex mutex;
  /// Signals every change of the fields below.
  std::condition_variable changed;
  bool stopping ZU_GUARDED_BY(mutex) = false;
  /// The robot's lease, 0 while it has none, and the TTL etcd granted it.
  std::int64_t lease ZU_GUARDED_BY(mutex) = 0;
  Ms ttl ZU_GUARDED_BY(mutex){0};
  /// When the robot gives the lease up unless a renewal succeeds first: the
  /// sending of the last renewal that succeeded (or of the grant), plus the
  /// TTL, less the margin. etcd counts from when the renewal reached it, so
  /// this is always before etcd could expire the lease.
  Clock::time_point deadline ZU_GUARDED_BY(mutex);
  /// When the next renewal is due: a third of the TTL after the last one.
  Clock::time_point renewDue ZU_GUARDED_BY(mutex);
  /// Why the last renewal failed, empty after a success.
  std::string renewFailure ZU_GUARDED_BY(mutex);
  /// The lease given up last, and why.
  std::int64_t lostLease ZU_GUARDED_BY(mutex) = 0;
  std::string lostReason ZU_GUARDED_BY(mutex);
  /// Whether the granted TTL was logged as differing from the one asked.
  bool ttlLogged ZU_GUARDED_BY(mutex) = false;
  /// Keys whose deletion failed, and leases given up while etcd was away.
  std::vector<std::string> toErase ZU_GUARDED_BY(mutex);
  std::vector<std::int64_t> toRevoke ZU_GUARDED_BY(mutex);
  /// Deletions seen by the watch: how many so far, and the latest keys with
  /// their numbers, so that a waiter learns of a deletion that came between
  /// its read of the queue and its wait.
  std::uint64_t deletions ZU_GUARDED_BY(mutex) = 0;
  /// Whether the watch has started: from then on it misses no change, since
  /// it resumes after the last revision it saw whenever it breaks.
  bool watching ZU_GUARDED_BY(mutex) = false;
  std::deque<std::pair<std::uint64_t, std::string>> recentDeletions ZU_GUARDED_BY(mutex);
  /// Escaped resource name -> fleet resource.
  std::map<std::string, boost::weak_ptr<ZUResourceFleet>> resources ZU_GUARDED_BY(mutex);

  explicit Core(ZUFleetConfig c)
      : config(std::move(c)), client(config.endpoints, config.callTimeoutMs) {}

  /// Sleeps up to `ms`, or until stopping. False when stopping. Takes: mutex.
  bool pause(int ms) ZU_EXCLUDES(mutex) {
    const Clock::time_point until = Clock::now() + Ms(ms);
    ZUMutexLock lock(mutex);
    while (!stopping && lock.waitUntil(changed, until)) {
    }
    return !stopping;
  }

  /// Whether the watch saw `key` deleted after deletion number `since`.
  bool deletedSince(const std::string& key, std::uint64_t since) const ZU_REQUIRES(mutex) {
    for (auto it = recentDeletions.rbegin(); it != recentDeletions.rend() && it->first > since;
         ++it)
      if (it->second == key) return true;
    return false;
  }

  /// Takes: mutex.
  std::vector<boost::shared_ptr<ZUResourceFleet>> liveResources() ZU_EXCLUDES(mutex) {
    std::vector<boost::shared_ptr<ZUResourceFleet>> live;
    ZUMutexLock lock(mutex);
    for (const auto& entry : resources)
      if (auto resource = entry.second.lock()) live.push_back(resource);
    return live;
  }

  /// The lease `lost` is gone: every resource gives up what it had under it.
  /// Takes: mutex, then (no lock held) each resource's leaseLost.
  void loseLease(std::int64_t lost, const std::string& reason, bool revokeLater)
      ZU_EXCLUDES(mutex) {
    {
      ZUMutexLock lock(mutex);
      if (lease != lost) return;
      lease = 0;
      lostLease = lost;
      lostReason = reason;
      if (revokeLater) toRevoke.push_back(lost);
      changed.notify_all();
    }
    for (const auto& resource : liveResources()) resource->leaseLost(lost, reason);
  }

  /// Retries the deletions and revocations that failed; stops when etcd is
  /// unreachable, drops what etcd turns down (a lease that expired meanwhile).
  /// Takes: mutex, never across a call to etcd.
  void settleLeftovers() ZU_EXCLUDES(mutex) {
    std::vector<std::string> keys;
    std::vector<std::int64_t> leases;
    {
      ZUMutexLock lock(mutex);
      keys.swap(toErase);
      leases.swap(toRevoke);
    }
    try {
      for (; !keys.empty(); keys.pop_back()) attempt([&] { client.erase(keys.back()); });
      for (; !leases.empty(); leases.pop_back()) attempt([&] { client.revoke(leases.back()); });
    } catch (const ZUEtcdError&) {
      ZUMutexLock lock(mutex);
      toErase.insert(toErase.end(), keys.begin(), keys.end());
      toRevoke.insert(toRevoke.end(), leases.begin(), leases.end());
    }
  }

  /// Runs `call`; passes on the error only when etcd could not be reached.
  template <typename Call>
  static void attempt(Call call) {
    try {
      call();
    } catch (const ZUEtcdError& e) {
      if (!e.answered()) throw;
    }
  }

  /// The reason of giving up a lease whose deadline passed. Takes: mutex
  /// (held by the caller).
  std::string overdueReason() const ZU_REQUIRES(mutex) {
    return "lease not renewed within its TTL of " + seconds(ttl) + " less a margin of " +
           seconds(marginOf(ttl)) + (renewFailure.empty() ? "" : ": " + renewFailure);
  }

  /// A renewal of `renewed` sent at `sent` succeeded, etcd reporting a TTL of
  /// `reportedSeconds`. Takes: mutex.
  void confirm(std::int64_t renewed, Clock::time_point sent, std::int64_t reportedSeconds)
      ZU_EXCLUDES(mutex) {
    ZUMutexLock lock(mutex);
    if (lease != renewed) return;  // given up meanwhile: it stays given up
    ttl = std::min(ttl, Ms(reportedSeconds * 1000));
    deadline = std::max(deadline, sent + ttl - marginOf(ttl));
    renewDue = sent + ttl / 3;
    renewFailure.clear();
    changed.notify_all();
  }

  /// Renews the lease a third of its TTL after the last renewal that
  /// succeeded, and again every 100 ms while renewals fail, each call limited
  /// to the time left before the deadline. A refusal means the lease expired.
  /// With no lease, retries leftover deletions and revocations. Takes: mutex,
  /// never across a call to etcd.
  void keepAliveLoop() ZU_EXCLUDES(mutex) {
    Clock::time_point settleAt = Clock::now() + kSettle;
    Clock::time_point retryAt;
    ZUMutexLock lock(mutex);
    while (!stopping) {
      const Clock::time_point now = Clock::now();
      if (lease == 0) {
        if (now < settleAt) {
          lock.waitUntil(changed, settleAt);
          continue;
        }
        settleAt = now + kSettle;
        lock.unlock();
        settleLeftovers();
        lock.lock();
        continue;
      }
      const Clock::time_point due = std::max(renewDue, retryAt);
      if (now < due) {
        lock.waitUntil(changed, due);
        continue;
      }
      const std::int64_t current = lease;
      const auto left = std::chrono::duration_cast<Ms>(deadline - now).count();
      const int timeoutMs = static_cast<int>(std::max<long long>(
          kRenewCallMinMs, std::min<long long>(left, config.callTimeoutMs)));
      lock.unlock();
      const Clock::time_point sent = Clock::now();
      std::int64_t reported = -1;
      std::string failure;
      try {
        reported = client.keepAlive(current, timeoutMs);
      } catch (const ZUEtcdError& e) {
        failure = e.getDescription();
      }
      if (reported == 0) {
        loseLease(current, "lease expired", false);
      } else if (reported > 0) {
        confirm(current, sent, reported);
        settleLeftovers();
      }
      lock.lock();
      if (reported < 0) {
        if (lease == current) renewFailure = failure;
        retryAt = Clock::now() + kRenewRetry;
      }
    }
  }

  /// Gives the lease up when its deadline passes, whatever the keep-alive
  /// thread is doing (its call may hang until its own time limit). Takes:
  /// mutex, never across loseLease.
  void guardLoop() ZU_EXCLUDES(mutex) {
    ZUMutexLock lock(mutex);
    while (!stopping) {
      if (lease == 0) {
        lock.wait(changed);
        continue;
      }
      if (Clock::now() < deadline) {
        lock.waitUntil(changed, deadline);
        continue;
      }
      const std::int64_t current = lease;
      const std::string reason = overdueReason();
      lock.unlock();
      loseLease(current, reason, true);
      lock.lock();
    }
  }

  /// Follows every change under the fleet's prefix, resuming after the last
  /// revision seen whenever the stream breaks.
  /// Takes: mutex, never across a call to etcd or a resource.
  void watchLoop() ZU_EXCLUDES(mutex) {
    const std::string end = ZUEtcdClient::prefixEnd(config.prefix);
    std::int64_t seen = 0;
    auto onEvents = [&](const std::vector<ZUEtcdEvent>& events, std::int64_t revision) {
      if (seen == 0 || revision > seen) seen = revision;
      for (const ZUEtcdEvent& event : events) dispatch(event);
      ZUMutexLock lock(mutex);
      if (!watching) {
        watching = true;
        changed.notify_all();
      }
      return !stopping;
    };
    for (;;) {
      {
        ZUMutexLock lock(mutex);
        if (stopping) return;
      }
      try {
        const std::int64_t canceled =
            client.watch(config.prefix, end, seen == 0 ? 0 : seen + 1, kWatchIdleMs, onEvents);
        // Canceled after a compaction: resume from the oldest revision etcd
        // still keeps (what came before is lost; waiters read again anyway).
        if (canceled > 0) seen = canceled - 1;
      } catch (const ZUEtcdError&) {
        // Unreachable: try again (the next endpoint) after a pause.
      }
      // No stream is opened again at once: the one that ended may have been
      // refused at once, and the pause loses nothing (we resume after `seen`).
      if (!pause(kWatchRetryMs)) return;
    }
  }

  /// Takes: mutex, then (no lock held) the resource's contenderArrived.
  void dispatch(const ZUEtcdEvent& event) ZU_EXCLUDES(mutex) {
    if (event.deleted) {
      ZUMutexLock lock(mutex);
      recentDeletions.emplace_back(++deletions, event.kv.key);
      if (recentDeletions.size() > kRecentDeletions) recentDeletions.pop_front();
      changed.notify_all();
      return;
    }
    // A key created under a resource's prefix: another contender.
    const std::string rest = event.kv.key.substr(config.prefix.size());
    const std::size_t slash = rest.rfind('/');
    if (event.kv.createRevision == 0 || slash == std::string::npos) return;
    boost::shared_ptr<ZUResourceFleet> resource;
    {
      ZUMutexLock lock(mutex);
      auto found = resources.find(rest.substr(0, slash));
      if (found != resources.end()) resource = found->second.lock();
    }
    if (resource) resource->contenderArrived(event.kv);
  }
};

ZUFleetSession::ZUFleetSession(ZUFleetConfig config) {
  if (config.endpoints.empty() || config.robot.empty() || config.ttlSeconds < 1 ||
      config.callTimeoutMs < 1)
    throw ZUError("ZUFleetSession", "ZUFleetSession",
                  "a fleet session needs endpoints, a robot name, a TTL of 1 s or more and a "
                  "call time limit of 1 ms or more",
                  kFile, __LINE__);
  core_ = std::make_shared<Core>(std::move(config));
  std::shared_ptr<Core> core = core_;
  keepAlive_ = std::thread([core] { core->keepAliveLoop(); });
  guard_ = std::thread([core] { core->guardLoop(); });
  watch_ = std::thread([core] { core->watchLoop(); });
}

ZUFleetSession::~ZUFleetSession() {
  {
    ZUMutexLock lock(core_->mutex);
    core_->stopping = true;
    core_->changed.notify_all();
  }
  // A write under the prefix ends our own watch's wait for news.
  try {
    const std::string wake = core_->config.prefix + kWakeKey + core_->config.robot;
    core_->client.put(wake, "", 0);
    core_->client.erase(wake);
  } catch (const ZUEtcdError&) {
    // Unreachable: the watch ends at its idle limit.
  }
  for (std::thread* thread : {&keepAlive_, &guard_, &watch_}) {
    if (thread->get_id() == std::this_thread::get_id())
      thread->detach();  // the core lives on with it
    else
      thread->join();
  }
}

const ZUFleetConfig& ZUFleetSession::config() const { return core_->config; }

ZUEtcdClient& ZUFleetSession::client() { return core_->client; }

std::int64_t ZUFleetSession::lease() {
  std::int64_t overdue = 0;
  std::string reason;
  {
    ZUMutexLock lock(core_->mutex);
    if (core_->lease != 0 && Clock::now() < core_->deadline) return core_->lease;
    // A lease past its deadline that the guard has not given up yet is given
    // up here: a new request takes a new lease.
    if (core_->lease != 0) {
      overdue = core_->lease;
      reason = core_->overdueReason();
    }
  }
  if (overdue != 0) core_->loseLease(overdue, reason, true);
  const Clock::time_point sent = Clock::now();
  const ZUEtcdLease granted = core_->client.grant(core_->config.ttlSeconds);
  bool log = false;
  std::int64_t result;
  {
    ZUMutexLock lock(core_->mutex);
    if (core_->lease != 0) {
      core_->toRevoke.push_back(granted.id);  // another wait was quicker
    } else {
      core_->lease = granted.id;
      core_->ttl = Ms(granted.ttlSeconds * 1000);
      core_->deadline = sent + core_->ttl - marginOf(core_->ttl);
      core_->renewDue = sent + core_->ttl / 3;
      core_->renewFailure.clear();
      log = granted.ttlSeconds != core_->config.ttlSeconds && !core_->ttlLogged;
      core_->ttlLogged = core_->ttlLogged || log;
      core_->changed.notify_all();
    }
    result = core_->lease;
  }
  // Written once, outside the lock: every deadline counts the TTL granted.
  if (log)
    std::cerr << "zufleet: robot " << core_->config.robot << " asked etcd for a lease of "
              << core_->config.ttlSeconds << " s and was granted " << granted.ttlSeconds
              << " s; its deadlines count " << granted.ttlSeconds << " s" << std::endl;
  return result;
}

std::chrono::milliseconds ZUFleetSession::leaseTtl() const {
  ZUMutexLock lock(core_->mutex);
  return core_->lease == 0 ? Ms(0) : core_->ttl;
}

std::optional<std::string> ZUFleetSession::lossOf(std::int64_t lease) {
  std::string reason;
  {
    ZUMutexLock lock(core_->mutex);
    if (core_->lease != lease)
      return core_->lostLease == lease ? core_->lostReason : std::string("lease given up");
    if (Clock::now() < core_->deadline) return std::nullopt;
    reason = core_->overdueReason();
  }
  core_->loseLease(lease, reason, true);
  return reason;
}

void ZUFleetSession::lose(std::int64_t lease, const std::string& reason) {
  core_->loseLease(lease, reason, true);
}

std::string ZUFleetSession::resourcePrefix(const std::string& name) const {
  return core_->config.prefix + escapeName(name) + "/";
}

std::string ZUFleetSession::keyOf(const std::string& name, std::int64_t lease) const {
  char hex[20];
  std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(lease));
  return resourcePrefix(name) + hex;
}

bool ZUFleetSession::awaitWatch(std::chrono::steady_clock::time_point until) {
  ZUMutexLock lock(core_->mutex);
  while (!core_->watching && !core_->stopping)
    if (!lock.waitUntil(core_->changed, until)) break;
  return core_->watching || core_->stopping;
}

std::uint64_t ZUFleetSession::deletions() const {
  ZUMutexLock lock(core_->mutex);
  return core_->deletions;
}

bool ZUFleetSession::awaitDeletion(const std::string& key, std::uint64_t since, std::int64_t lease,
                                   std::chrono::steady_clock::time_point until) {
  ZUMutexLock lock(core_->mutex);
  for (;;) {
    if (core_->deletedSince(key, since)) return true;
    if (core_->stopping || core_->lease != lease || Clock::now() >= until) return false;
    lock.waitUntil(core_->changed, until);
  }
}

void ZUFleetSession::erase(const std::string& key) {
  try {
    core_->client.erase(key);
  } catch (const ZUEtcdError&) {
    ZUMutexLock lock(core_->mutex);
    core_->toErase.push_back(key);
  }
}

void ZUFleetSession::attach(const boost::shared_ptr<ZUResourceFleet>& resource) {
  ZUMutexLock lock(core_->mutex);
  core_->resources[escapeName(resource->name)] = resource;
}

void ZUFleetSession::detach(const std::string& name) {
  ZUMutexLock lock(core_->mutex);
  core_->resources.erase(escapeName(name));
}

}  // namespace ZU
