#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <iostream>
#include <map>
#include <mutex>

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
  std::mutex mutex;
  std::condition_variable changed;
  bool stopping = false;
  /// The robot's lease, 0 while it has none, and the TTL etcd granted it.
  std::int64_t lease = 0;
  Ms ttl{0};
  /// When the robot gives the lease up unless a renewal succeeds first: the
  /// sending of the last renewal that succeeded (or of the grant), plus the
  /// TTL, less the margin. etcd counts from when the renewal reached it, so
  /// this is always before etcd could expire the lease.
  Clock::time_point deadline;
  /// When the next renewal is due: a third of the TTL after the last one.
  Clock::time_point renewDue;
  /// Why the last renewal failed, empty after a success.
  std::string renewFailure;
  /// The lease given up last, and why.
  std::int64_t lostLease = 0;
  std::string lostReason;
  /// Whether the granted TTL was logged as differing from the one asked.
  bool ttlLogged = false;
  /// Keys whose deletion failed, and leases given up while etcd was away.
  std::vector<std::string> toErase;
  std::vector<std::int64_t> toRevoke;
  /// Deletions seen by the watch: how many so far, and the latest keys with
  /// their numbers, so that a waiter learns of a deletion that came between
  /// its read of the queue and its wait.
  std::uint64_t deletions = 0;
  /// Whether the watch has started: from then on it misses no change, since
  /// it resumes after the last revision it saw whenever it breaks.
  bool watching = false;
  std::deque<std::pair<std::uint64_t, std::string>> recentDeletions;
  /// Escaped resource name -> fleet resource.
  std::map<std::string, boost::weak_ptr<ZUResourceFleet>> resources;

  explicit Core(ZUFleetConfig c)
      : config(std::move(c)), client(config.endpoints, config.callTimeoutMs) {}

  /// Sleeps up to `ms`, or until stopping. False when stopping.
  bool pause(int ms) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, std::chrono::milliseconds(ms), [this] { return stopping; });
    return !stopping;
  }

  std::vector<boost::shared_ptr<ZUResourceFleet>> liveResources() {
    std::vector<boost::shared_ptr<ZUResourceFleet>> live;
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& entry : resources)
      if (auto resource = entry.second.lock()) live.push_back(resource);
    return live;
  }

  /// The lease `lost` is gone: every resource gives up what it had under it.
  void loseLease(std::int64_t lost, const std::string& reason, bool revokeLater) {
    {
      std::lock_guard<std::mutex> lock(mutex);
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
  void settleLeftovers() {
    std::vector<std::string> keys;
    std::vector<std::int64_t> leases;
    {
      std::lock_guard<std::mutex> lock(mutex);
      keys.swap(toErase);
      leases.swap(toRevoke);
    }
    try {
      for (; !keys.empty(); keys.pop_back()) attempt([&] { client.erase(keys.back()); });
      for (; !leases.empty(); leases.pop_back()) attempt([&] { client.revoke(leases.back()); });
    } catch (const ZUEtcdError&) {
      std::lock_guard<std::mutex> lock(mutex);
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
  std::string overdueReason() const {
    return "lease not renewed within its TTL of " + seconds(ttl) + " less a margin of " +
           seconds(marginOf(ttl)) + (renewFailure.empty() ? "" : ": " + renewFailure);
  }

  /// A renewal of `renewed` sent at `sent` succeeded, etcd reporting a TTL of
  /// `reportedSeconds`. Takes: mutex.
  void confirm(std::int64_t renewed, Clock::time_point sent, std::int64_t reportedSeconds) {
    std::lock_guard<std::mutex> lock(mutex);
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
  void keepAliveLoop() {
    Clock::time_point settleAt = Clock::now() + kSettle;
    Clock::time_point retryAt;
    std::unique_lock<std::mutex> lock(mutex);
    while (!stopping) {
      const Clock::time_point now = Clock::now();
      if (lease == 0) {
        if (now < settleAt) {
          changed.wait_until(lock, settleAt);
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
        changed.wait_until(lock, due);
        continue;
      }
      const std::int64_t current = lease;
      const auto left = std::chrono::duration_cast<Ms>(deadline - now).count();
      const int timeoutMs = static_cast<int>(
          std::clamp<long long>(left, kRenewCallMinMs, config.callTimeoutMs));
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
  void guardLoop() {
    std::unique_lock<std::mutex> lock(mutex);
    while (!stopping) {
      if (lease == 0) {
        changed.wait(lock);
        continue;
      }
      if (Clock::now() < deadline) {
        changed.wait_until(lock, deadline);
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
  void watchLoop() {
    const std::string end = ZUEtcdClient::prefixEnd(config.prefix);
    std::int64_t seen = 0;
    auto onEvents = [&](const std::vector<ZUEtcdEvent>& events, std::int64_t revision) {
      if (seen == 0 || revision > seen) seen = revision;
      for (const ZUEtcdEvent& event : events) dispatch(event);
      std::lock_guard<std::mutex> lock(mutex);
      if (!watching) {
        watching = true;
        changed.notify_all();
      }
      return !stopping;
    };
    for (;;) {
      {
        std::lock_guard<std::mutex> lock(mutex);
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

  void dispatch(const ZUEtcdEvent& event) {
    if (event.deleted) {
      std::lock_guard<std::mutex> lock(mutex);
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
      std::lock_guard<std::mutex> lock(mutex);
      auto found = resources.find(rest.substr(0, slash));
      if (found != resources.end()) resource = found->second.lock();
    }
    if (resource) resource->contenderArrived(event.kv);
  }
};

ZUFleetSession::ZUFleetSession(ZUFleetConfig config) {
  if (config.endpoints.empty() || config.robot.empty() || config.ttlSeconds < 1)
    throw ZUError("ZUFleetSession", "ZUFleetSession",
                  "a fleet session needs endpoints, a robot name and a TTL of 1 s or more", kFile,
                  __LINE__);
  core_ = std::make_shared<Core>(std::move(config));
  std::shared_ptr<Core> core = core_;
  keepAlive_ = std::thread([core] { core->keepAliveLoop(); });
  guard_ = std::thread([core] { core->guardLoop(); });
  watch_ = std::thread([core] { core->watchLoop(); });
}

ZUFleetSession::~ZUFleetSession() {
  {
    std::lock_guard<std::mutex> lock(core_->mutex);
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
  {
    std::lock_guard<std::mutex> lock(core_->mutex);
    if (core_->lease != 0) return core_->lease;
  }
  const Clock::time_point sent = Clock::now();
  const ZUEtcdLease granted = core_->client.grant(core_->config.ttlSeconds);
  bool log = false;
  std::int64_t result;
  {
    std::lock_guard<std::mutex> lock(core_->mutex);
    if (core_->lease != 0) {
      core_->toRevoke.push_back(granted.id);  // another wait was quicker
    } else {
      Core& c = *core_;
      c.lease = granted.id;
      c.ttl = Ms(granted.ttlSeconds * 1000);
      c.deadline = sent + c.ttl - marginOf(c.ttl);
      c.renewDue = sent + c.ttl / 3;
      c.renewFailure.clear();
      log = granted.ttlSeconds != c.config.ttlSeconds && !c.ttlLogged;
      c.ttlLogged = c.ttlLogged || log;
      c.changed.notify_all();
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
  std::lock_guard<std::mutex> lock(core_->mutex);
  return core_->lease == 0 ? Ms(0) : core_->ttl;
}

std::optional<std::string> ZUFleetSession::lossOf(std::int64_t lease) {
  std::string reason;
  {
    std::lock_guard<std::mutex> lock(core_->mutex);
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
  std::unique_lock<std::mutex> lock(core_->mutex);
  return core_->changed.wait_until(lock, until, [&] { return core_->watching || core_->stopping; });
}

std::uint64_t ZUFleetSession::deletions() const {
  std::lock_guard<std::mutex> lock(core_->mutex);
  return core_->deletions;
}

bool ZUFleetSession::awaitDeletion(const std::string& key, std::uint64_t since, std::int64_t lease,
                                   std::chrono::steady_clock::time_point until) {
  std::unique_lock<std::mutex> lock(core_->mutex);
  auto deleted = [&] {
    const auto& recent = core_->recentDeletions;
    for (auto it = recent.rbegin(); it != recent.rend() && it->first > since; ++it)
      if (it->second == key) return true;
    return false;
  };
  core_->changed.wait_until(lock, until,
                            [&] { return deleted() || core_->stopping || core_->lease != lease; });
  return deleted();
}

void ZUFleetSession::erase(const std::string& key) {
  try {
    core_->client.erase(key);
  } catch (const ZUEtcdError&) {
    std::lock_guard<std::mutex> lock(core_->mutex);
    core_->toErase.push_back(key);
  }
}

void ZUFleetSession::attach(const boost::shared_ptr<ZUResourceFleet>& resource) {
  std::lock_guard<std::mutex> lock(core_->mutex);
  core_->resources[escapeName(resource->name)] = resource;
}

void ZUFleetSession::detach(const std::string& name) {
  std::lock_guard<std::mutex> lock(core_->mutex);
  core_->resources.erase(escapeName(name));
}

}  // namespace ZU
