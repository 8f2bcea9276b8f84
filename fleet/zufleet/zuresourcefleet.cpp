#include <algorithm>
#include <iostream>
#include <optional>

#include <zuresource/zucontract.h>
#include <zuresource/zuobserver.h>
#include <zuresource/zuownerstrong.h>

#include <zufleet/zuresourcefleet.h>

namespace ZU {

namespace {
const char* const kFile = "fleet/zufleet/zuresourcefleet";
const char* const kLineEnd = "<br />";
/// The queue is read again this often even when the watch brought no news, in
/// case the stream was down when the key ahead went.
const std::chrono::milliseconds kRecheck(1000);
const std::chrono::milliseconds kPoll(ZUOwnerStrong::kPollPeriodMs);
/// How long a new grant waits for the robot's watch to start, so that no
/// robot that asks after the grant goes untold.
const int kWatchStartMs = 2000;

/// The end of a wait of `timeout` seconds from now (negative: none).
std::chrono::steady_clock::time_point deadlineOf(int timeout) {
  return timeout < 0 ? std::chrono::steady_clock::time_point::max()
                     : std::chrono::steady_clock::now() + std::chrono::seconds(timeout);
}

ZUError waitError(const std::string& description, unsigned line) {
  return ZUError(contract::kWaitErrorModule, contract::kWaitErrorMethod, description, kFile, line);
}

ZUError lostError(const std::string& reason, unsigned line) {
  return waitError(ZUResourceFleet::kLeaseLost + reason, line);
}

/// A wait that etcd did not answer while `doing` ("asking for NAME", ...).
ZUError unreachableError(const std::string& doing, const ZUEtcdError& e, unsigned line) {
  return ZUError("ZUResourceFleet", "waitFor",
                 "etcd unreachable while " + doing + ": " + e.getDescription(), kFile, line);
}

const char* const kKeyLeft = "the robot's key left the queue (its lease expired)";
}  // namespace

boost::shared_ptr<ZUResourceFleet> ZUResourceFleet::create(
    const std::string& name, boost::shared_ptr<ZUResource> parent,
    boost::shared_ptr<ZUFleetSession> session) {
  boost::shared_ptr<ZUResourceFleet> resource(new ZUResourceFleet(name, parent, session));
  session->attach(resource);
  return resource;
}

ZUResourceFleet::ZUResourceFleet(const std::string& name, boost::shared_ptr<ZUResource> parent,
                                 boost::shared_ptr<ZUFleetSession> session)
    : session_(session) {
  if (!session_)
    throw ZUError("ZUResourceFleet", "ZUResourceFleet", "empty fleet session handle", kFile,
                  __LINE__);
  init(name, parent);
}

ZUResourceFleet::~ZUResourceFleet() {
  session_->detach(name);
  if (!key_.empty()) session_->erase(key_);
}

std::int64_t ZUResourceFleet::fencingToken() const {
  ZUMutexLock lock(claimMutex_);
  return claim_ == Claim::Held ? token_ : 0;
}

std::vector<std::string> ZUResourceFleet::waitFor(boost::shared_ptr<ZUOwner> owner,
                                                  const std::string& label, int timeout,
                                                  const std::vector<std::string>& noWaitList) {
  requireOwner(owner, "ZUResourceFleet", "waitFor");
  const Clock::time_point deadline = deadlineOf(timeout);
  std::vector<std::string> result = ZUResource::waitFor(owner, label, timeout, noWaitList);
  if (!result.empty()) return result;
  const bool noWait = std::find(noWaitList.begin(), noWaitList.end(), name) != noWaitList.end();
  if (!acquireFleet(owner, deadline, noWait)) result.push_back(name);
  return result;
}

void ZUResourceFleet::switchOwner(boost::shared_ptr<ZUOwner> owner, const std::string& label,
                                  int timeout) {
  const Clock::time_point deadline = deadlineOf(timeout);
  ZUResource::switchOwner(owner, label, timeout);
  acquireFleet(owner, deadline, false);
}

void ZUResourceFleet::release(boost::shared_ptr<ZUOwner> owner) {
  std::string key;
  {
    ZUEventDeferral deferral;  // the release's event goes out after claimMutex
    ZUMutexLock lock(claimMutex_);
    ZUResource::release(owner);
    if (claim_ == Claim::Held && isFree()) {
      key.swap(key_);
      claim_ = Claim::None;
      lease_ = token_ = 0;
      claimChanged_.notify_all();
    }
  }
  if (!key.empty()) session_->erase(key);
}

std::string ZUResourceFleet::httpGet(int depth) {
  std::string line = ZUResource::httpGet(depth);
  std::string fleet;
  {
    ZUMutexLock lock(claimMutex_);
    if (claim_ == Claim::Held) fleet = " fleet token " + std::to_string(token_);
    if (claim_ == Claim::Waiting && token_ != 0) fleet = " fleet waiting";
  }
  line.insert(line.size() - std::char_traits<char>::length(kLineEnd), fleet);
  return line;
}

bool ZUResourceFleet::acquireFleet(const boost::shared_ptr<ZUOwner>& owner,
                                   Clock::time_point deadline, bool noWait) {
  bool started = false;
  {
    ZUMutexLock lock(claimMutex_);
    // The holder before a hand-down may be waiting for the lock already: its
    // wait serves the descendant too.
    while (claim_ == Claim::Waiting && Clock::now() < deadline)
      lock.waitUntil(claimChanged_, std::min(deadline, Clock::now() + kPoll));
    if (claim_ == Claim::Held) return true;
    if (claim_ != Claim::Waiting) {
      claim_ = Claim::Waiting;
      token_ = 0;
      started = true;
    }
  }
  if (!started) {
    abandon(owner);
    throw waitError(contract::waitTimedOut(name), __LINE__);
  }

  try {
    std::int64_t lease = 0, token = 0;
    std::string key;
    for (;;) {
      try {
        lease = session_->lease();
        key = session_->keyOf(name, lease);
        {
          ZUMutexLock lock(claimMutex_);
          if (claim_ == Claim::Lost) throw lostError(lostReason_, __LINE__);
          lease_ = lease;
          key_ = key;
        }
        token = session_->client().put(key, session_->config().robot, lease);
        ZUMutexLock lock(claimMutex_);
        if (claim_ == Claim::Waiting) token_ = token;  // queued
        break;
      } catch (const ZUEtcdError& e) {
        // Turned down: the lease expired before the key was put.
        if (e.answered() && lease != 0)
          session_->lose(lease, "etcd turned the key's put down: " + e.getDescription());
        // Refused: nothing listens there. Otherwise etcd may answer in time.
        if (e.refused() || Clock::now() + kPoll >= deadline)
          throw unreachableError("asking for " + name, e, __LINE__);
        std::this_thread::sleep_for(kPoll);
      }
    }
    if (!awaitTurn(*owner, lease, token, deadline, noWait)) {
      abandon(owner);
      return false;
    }
    // The queue said "your turn" while the key existed; the lease must still
    // be within its deadline now, or the turn may already be another robot's.
    failIfLost(lease);
    {
      ZUMutexLock lock(claimMutex_);
      if (claim_ == Claim::Lost) throw lostError(lostReason_, __LINE__);
      if (isFree()) throw waitError(contract::kStopWhileWaiting, __LINE__);
      claim_ = Claim::Held;
      token_ = toldThrough_ = token;
      claimChanged_.notify_all();
    }
    // The grant is the robot's: when the manager released `owner` and another
    // local owner took the resource meanwhile, that owner keeps the grant and
    // this wait ends as a stopped one. A grant lost meanwhile (the lease went
    // and took the local holder with it) ends the wait as a loss.
    boost::shared_ptr<ZUOwner> holder = copyOwner();
    if (!holder || (holder->name != owner->name && !holder->isParent(owner))) {
      ZUMutexLock lock(claimMutex_);
      if (claim_ != Claim::Held || token_ != token) throw lostError(lostReason_, __LINE__);
      throw waitError(contract::kStopWhileWaiting, __LINE__);
    }
  } catch (...) {
    abandon(owner);
    throw;
  }

  // Robots that asked before the watch can tell of them are waiting now.
  session_->awaitWatch(Clock::now() + std::chrono::milliseconds(kWatchStartMs));
  try {
    const std::string prefix = session_->resourcePrefix(name);
    const std::vector<ZUEtcdKeyValue> newest =
        session_->client().range(prefix, ZUEtcdClient::prefixEnd(prefix), 0, 1);
    if (!newest.empty()) contenderArrived(newest.front());
  } catch (const ZUEtcdError&) {
    // The watch tells of those that come later; these go untold.
  }
  return true;
}

bool ZUResourceFleet::awaitTurn(const ZUOwner& owner, std::int64_t lease, std::int64_t token,
                                Clock::time_point deadline, bool noWait) {
  const std::string prefix = session_->resourcePrefix(name);
  const std::string end = ZUEtcdClient::prefixEnd(prefix);
  std::string ahead;
  std::optional<ZUEtcdError> unreachable;
  Clock::time_point lastRead;
  bool mustRead = true;
  std::uint64_t since = 0;
  for (;;) {
    if (mustRead) {
      since = session_->deletions();
      try {
        // The robot's own key and the one just ahead of it, if any. A robot
        // whose key is gone (its lease expired while it could not renew it,
        // frozen or cut off) has lost its place: the keys ahead of it may be
        // gone too, and another robot served meanwhile.
        const std::vector<ZUEtcdKeyValue> keys = session_->client().range(prefix, end, token, 2);
        unreachable.reset();
        lastRead = Clock::now();
        if (keys.empty() || keys.front().createRevision != token) {
          session_->lose(lease, kKeyLeft);
          failIfLost(lease);
          throw lostError(kKeyLeft, __LINE__);
        }
        if (keys.size() == 1) return true;
        if (noWait) return false;
        if (keys[1].key != ahead) waitingBehind(owner, keys[1].value, deadline);
        ahead = keys[1].key;
      } catch (const ZUEtcdError& e) {
        unreachable = e;
      }
    }
    failIfLost(lease);
    if (isFree()) throw waitError(contract::kStopWhileWaiting, __LINE__);
    const Clock::time_point now = Clock::now();
    if (now >= deadline) {
      if (unreachable) throw unreachableError("waiting for " + name, *unreachable, __LINE__);
      throw waitError(contract::waitTimedOut(name), __LINE__);
    }
    const Clock::time_point until = std::min(deadline, now + kPoll);
    bool deleted = false;
    if (ahead.empty())
      std::this_thread::sleep_until(until);
    else
      deleted = session_->awaitDeletion(ahead, since, lease, until);
    mustRead = deleted || unreachable || Clock::now() - lastRead >= kRecheck;
  }
}

void ZUResourceFleet::failIfLost(std::int64_t lease) {
  {
    ZUMutexLock lock(claimMutex_);
    if (claim_ == Claim::Lost) throw lostError(lostReason_, __LINE__);
  }
  if (std::optional<std::string> reason = session_->lossOf(lease)) {
    ZUMutexLock lock(claimMutex_);
    throw lostError(claim_ == Claim::Lost ? lostReason_ : *reason, __LINE__);
  }
}

void ZUResourceFleet::waitingBehind(const ZUOwner& owner, const std::string& robot,
                                    Clock::time_point deadline) const {
  if (!ZUObservers::active()) return;
  ZUEvent waiting = ZUEvent::make(ZUEvent::Kind::Waiting, name, &owner);
  waiting.holder = robot;
  waiting.timeout =
      deadline == Clock::time_point::max()
          ? -1
          : static_cast<int>(
                std::chrono::ceil<std::chrono::seconds>(deadline - Clock::now()).count());
  ZUObservers::emit(std::move(waiting));
}

void ZUResourceFleet::abandon(const boost::shared_ptr<ZUOwner>& owner) {
  std::string key;
  {
    ZUMutexLock lock(claimMutex_);
    if (claim_ == Claim::Waiting || claim_ == Claim::Lost) {
      key.swap(key_);
      claim_ = Claim::None;
      lease_ = token_ = 0;
      claimChanged_.notify_all();
    }
  }
  if (!key.empty()) session_->erase(key);
  boost::shared_ptr<ZUOwner> holder = copyOwner();
  if (holder && holder->name == owner->name) release(owner);
}

void ZUResourceFleet::tell(const boost::shared_ptr<ZUOwner>& holder) {
  auto strong = boost::dynamic_pointer_cast<ZUOwnerStrong>(holder);
  if (!strong) return;
  try {
    strong->notifyConflictOwner(name, holder, 0);
  } catch (const ZUError& e) {
    std::cout << e.toString() << std::endl;
  }
}

void ZUResourceFleet::contenderArrived(const ZUEtcdKeyValue& kv) {
  {
    ZUMutexLock lock(claimMutex_);
    if (claim_ != Claim::Held || kv.createRevision <= toldThrough_ || kv.lease == lease_) return;
    toldThrough_ = kv.createRevision;
  }
  tell(copyOwner());
}

void ZUResourceFleet::leaseLost(std::int64_t lease, const std::string& reason) {
  boost::shared_ptr<ZUOwner> holder;
  {
    ZUMutexLock lock(claimMutex_);
    if ((claim_ != Claim::Waiting && claim_ != Claim::Held) || lease_ != lease) return;
    const bool held = claim_ == Claim::Held;
    // A wait learns of the loss from the claim and fails; a grant is taken
    // back here.
    claim_ = held ? Claim::None : Claim::Lost;
    lostReason_ = reason;
    key_.clear();
    lease_ = token_ = 0;
    claimChanged_.notify_all();
    if (held) holder = copyOwner();
    if (holder) {
      { ZUCriticalSection settle(holder->ownerMutex); }
      {
        ZUCriticalSectionRead ownerLock(currentOwnerMutex);
        currentOwner.store(emptyOwner);
      }
      holder->freeResource();
    }
  }
  if (!holder) return;
  tell(holder);
  if (ZUObservers::active()) {
    ZUEvent lost = ZUEvent::make(ZUEvent::Kind::Lost, name, holder.get());
    lost.reason = reason;
    ZUObservers::emit(std::move(lost));
  }
}

}  // namespace ZU
