#pragma once

#include <chrono>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zuhost/zumutex.h>
#include <zuhost/zuthreadannotations.h>

#include <zuresource/zuresource.h>

#include <zufleet/zuetcdclient.h>
#include <zufleet/zufleetsession.h>

namespace ZU {

/// A resource that several robots share (a door, a lift, a charging dock).
/// Locally it is a plain resource: hand-down, conflicts, notifications, time
/// limits and status lines as ZUResource. In addition, while a real owner of
/// this robot holds it, the robot holds the fleet-wide lock of that name in
/// etcd; when the resource becomes free locally, the lock is given back.
///
/// The fleet lock is etcd's usual lock: each contending robot puts a key under
/// the resource's prefix, attached to its lease; the key created first holds
/// the lock, and each other robot waits for the key just ahead of its own to
/// go, so robots are served in the order they asked. The holder's module is
/// told "__onResource__" (as for a local conflict) when another robot's key
/// appears. While a robot waits in the queue, observers receive a Waiting
/// event whose holder is the name of the robot just ahead of it (again when
/// that robot changes). The grant's fencing token is its key's create
/// revision: a later grant of the same resource always has a larger one.
///
/// Thread safety: thread safe, as ZUResource. Lock order: claimMutex, then the
/// locks of ZUResource (waitMutex, currentOwnerMutex, an owner's ownerMutex).
/// No lock is held while etcd is called or a module is told.
class ZUResourceFleet : public ZUResource {
 public:
  /// A free fleet resource named `name` of the robot of `session`, registered
  /// with the session. One fleet resource per name and session.
  static boost::shared_ptr<ZUResourceFleet> create(const std::string& name,
                                                   boost::shared_ptr<ZUResource> parent,
                                                   boost::shared_ptr<ZUFleetSession> session);
  /// Gives the fleet lock back, or the place in its queue, if it has one.
  ~ZUResourceFleet() override;

  /// Acquires locally as ZUResource::waitFor, then the fleet lock unless the
  /// robot holds it already, within the same time limit (counted from the
  /// call). The no-wait list also covers another robot's holding: the
  /// resource is given back locally and {name} returned. A failed fleet wait
  /// gives the resource back locally and throws ZUError: the plain
  /// resource's time-out ("ResourceManager", "waitResource", "resource wait
  /// has timeouted on <name>"); "box stop while waiting" when `owner` was
  /// released locally meanwhile (another local owner that took the resource
  /// then joins the robot's wait and keeps its grant); "fleet lease lost:
  /// <reason>"; or
  /// ("ZUResourceFleet", "waitFor", "etcd unreachable ...") at once when
  /// every endpoint refuses the connection, or at the time limit when etcd
  /// did not answer its last call.
  std::vector<std::string> waitFor(boost::shared_ptr<ZUOwner> owner, const std::string& label,
                                   int timeout,
                                   const std::vector<std::string>& noWaitList) override;
  /// Makes `owner` the local holder as ZUResource::switchOwner, then takes the
  /// fleet lock within `timeout` as waitFor does (giving the resource back
  /// locally and throwing on failure).
  void switchOwner(boost::shared_ptr<ZUOwner> owner, const std::string& label,
                   int timeout) override;
  /// As ZUResource::release; when the resource becomes free locally, the
  /// fleet lock goes back too. Takes: claimMutex, then ZUResource's locks.
  void release(boost::shared_ptr<ZUOwner> owner) override;
  /// The plain resource's line, with " fleet token <N>" while the robot holds
  /// the fleet lock, or " fleet waiting" while its key waits in the queue,
  /// before the closing "<br />".
  std::string httpGet(int depth) override;

  /// The start of the fleet-loss error's description, followed by the reason:
  /// every wait of a robot whose lease is lost fails with it.
  static constexpr const char* kLeaseLost = "fleet lease lost: ";

  /// The fencing token of the robot's grant, 0 when it holds none.
  std::int64_t fencingToken() const ZU_EXCLUDES(claimMutex_);

  // --- For the session. ------------------------------------------------------

  /// Another robot's key `kv` appeared: when this robot holds the lock and
  /// `kv` queues behind it, the local holder's module is told.
  void contenderArrived(const ZUEtcdKeyValue& kv) ZU_EXCLUDES(claimMutex_);
  /// The robot's lease `lease` is gone: a grant under it is lost (the local
  /// holder released, its module told, observers given a Lost event with
  /// `reason`) and a wait under it fails. Takes: claimMutex, inside it the
  /// holder's ownerMutex, then currentOwnerMutex (read); tells and emits with
  /// no lock held.
  void leaseLost(std::int64_t lease, const std::string& reason) ZU_EXCLUDES(claimMutex_);

 private:
  ZUResourceFleet(const std::string& name, boost::shared_ptr<ZUResource> parent,
                  boost::shared_ptr<ZUFleetSession> session);

  enum class Claim { None, Waiting, Held, Lost };
  using Clock = std::chrono::steady_clock;

  /// Takes the fleet lock for the local holder `owner`. Returns false when it
  /// is busy and `noWait` holds; throws as waitFor documents.
  /// Takes: claimMutex_ (then ZUResource's locks), never across a call to
  /// etcd or the session.
  bool acquireFleet(const boost::shared_ptr<ZUOwner>& owner, Clock::time_point deadline,
                    bool noWait) ZU_EXCLUDES(claimMutex_);
  /// Waits in the queue for `owner` with the key created at `token` under
  /// `lease`. Same results as acquireFleet. No lock is held.
  bool awaitTurn(const ZUOwner& owner, std::int64_t lease, std::int64_t token,
                 Clock::time_point deadline, bool noWait) ZU_EXCLUDES(claimMutex_);
  /// Throws the fleet-loss error when the claim was lost or `lease` is no
  /// longer the robot's or past its deadline. Takes: claimMutex, then the
  /// session's (never both at once).
  void failIfLost(std::int64_t lease) ZU_EXCLUDES(claimMutex_);
  /// Tells observers that `owner` waits behind robot `robot`, the key just
  /// ahead of its own (the holder, or a robot that asked earlier). Called
  /// with no lock held.
  void waitingBehind(const ZUOwner& owner, const std::string& robot,
                     Clock::time_point deadline) const;
  /// Ends a claim that did not become a grant and gives the resource back
  /// locally for `owner`. Takes: claimMutex_, then (without it) release.
  void abandon(const boost::shared_ptr<ZUOwner>& owner) ZU_EXCLUDES(claimMutex_);
  /// Tells the module of `holder` that the resource is wanted. No lock.
  void tell(const boost::shared_ptr<ZUOwner>& holder);

  /// Immutable.
  const boost::shared_ptr<ZUFleetSession> session_;
  /// Guards the fields below; `claimChanged_` signals every change of claim_.
  mutable ZUMutex claimMutex_;
  std::condition_variable claimChanged_;
  Claim claim_ ZU_GUARDED_BY(claimMutex_) = Claim::None;
  /// The robot's key and its lease while waiting or holding, else empty / 0.
  std::string key_ ZU_GUARDED_BY(claimMutex_);
  std::int64_t lease_ ZU_GUARDED_BY(claimMutex_) = 0;
  /// The key's create revision once it is queued: the fencing token while
  /// holding; else 0.
  std::int64_t token_ ZU_GUARDED_BY(claimMutex_) = 0;
  /// While holding, the newest contender's create revision that the holder
  /// was told of (the token at first): the queue read after the grant and
  /// the watch may both bring the same contender, who is told of once.
  std::int64_t toldThrough_ ZU_GUARDED_BY(claimMutex_) = 0;
  /// Why the last claim was lost.
  std::string lostReason_ ZU_GUARDED_BY(claimMutex_);
};

/// The check a shared device makes of the fencing tokens that come with
/// commands: a token older than the newest one it has admitted is refused.
///
/// Thread safety: thread safe (one atomic).
class ZUFencingGate {
 public:
  /// True, and `token` becomes the newest, unless a newer one was admitted.
  bool admit(std::int64_t token) {
    std::int64_t newest = newest_.load();
    while (token >= newest)
      if (newest_.compare_exchange_weak(newest, token)) return true;
    return false;
  }

 private:
  std::atomic<std::int64_t> newest_{0};
};

}  // namespace ZU
