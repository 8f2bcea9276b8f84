#include <algorithm>
#include <thread>
#include <utility>

#include <boost/make_shared.hpp>

#include <zuresource/zucontract.h>
#include <zuresource/zueventsite.h>
#include <zuresource/zuresource.h>

namespace ZU {

namespace {
const char* const kFile = "behavior/lib/zuresource/zuresource/zuresource";
const int kMaxDepth = 1000000;

// Whether `owner` stands for a free resource: it bears the placeholder's name.
bool isPlaceholder(const ZUOwner& owner) {
  static const std::string placeholderName = contract::kPlaceholderName;
  return owner.name == placeholderName;
}

// Wakes the passes sleeping on a wait point as it goes out of scope, once
// armed; with keptBy(), only when the holder is no longer that owner then.
class WakeOnExit {
 public:
  explicit WakeOnExit(ZUWaitPoint& point) : point_(point) {}
  ~WakeOnExit() {
    if (armed_ && !(holder_ && holder_->is(*keeper_))) point_.wake();
  }
  WakeOnExit(const WakeOnExit&) = delete;
  WakeOnExit& operator=(const WakeOnExit&) = delete;
  void arm() { armed_ = true; }
  void keptBy(const ZUHolderHandle& holder, const boost::shared_ptr<ZUOwner>& keeper) {
    holder_ = &holder;
    keeper_ = &keeper;
  }

 private:
  ZUWaitPoint& point_;
  bool armed_ = false;
  const ZUHolderHandle* holder_ = nullptr;
  const boost::shared_ptr<ZUOwner>* keeper_ = nullptr;
};
}  // namespace

// --- Holder handle -------------------------------------------------------------

void ZUHolderHandle::Spin::lock() {
  while (busy_.test_and_set(std::memory_order_acquire)) std::this_thread::yield();
}

void ZUHolderHandle::Spin::unlock() { busy_.clear(std::memory_order_release); }

class ZU_SCOPED_CAPABILITY ZUHolderHandle::SpinLock {
 public:
  explicit SpinLock(Spin& spin) ZU_ACQUIRE(spin) : spin_(spin) { spin_.lock(); }
  ~SpinLock() ZU_RELEASE() { spin_.unlock(); }
  SpinLock(const SpinLock&) = delete;
  SpinLock& operator=(const SpinLock&) = delete;

 private:
  Spin& spin_;
};

boost::shared_ptr<ZUOwner> ZUHolderHandle::load() const {
  SpinLock lock(spin_);
  return owner_;
}

void ZUHolderHandle::store(boost::shared_ptr<ZUOwner> owner) {
  {
    SpinLock lock(spin_);
    owner_.swap(owner);
    address_.store(owner_.get(), std::memory_order_release);
  }
  // `owner` now holds the old holder, dropped here without the lock.
}

// --- Resource ------------------------------------------------------------------

ZUResource::ZUResource() = default;

ZUResource::ZUResource(const std::string& name, boost::shared_ptr<ZUResource> parent) {
  init(name, parent);
}

ZUResource::~ZUResource() = default;

void ZUResource::init(const std::string& name, boost::shared_ptr<ZUResource> parent) {
  this->name = name;
  emptyOwner =
      boost::make_shared<ZUOwnerWeak>(contract::kPlaceholderName, contract::kPlaceholderName);
  currentOwner.store(emptyOwner);
  resourceMutex = ZUMutex::createZUMutex();
  waitMutex = ZUMutex::createZUMutex();
  currentOwnerMutex = ZUMutexRW::createZUMutexRW();
  this->parent = parent;
}

boost::shared_ptr<ZUOwner> ZUResource::createOwner(
    int, const std::string& name, const std::string& moduleName,
    boost::shared_ptr<ZUHierarchyOwner> hierarchyOwner) {
  return boost::make_shared<ZUOwnerStrong>(name, moduleName, hierarchyOwner);
}

void ZUResource::requireOwner(const boost::shared_ptr<ZUOwner>& owner, const char* cls,
                              const char* method) {
  if (!owner) throw ZUError(cls, method, "empty owner handle", kFile, __LINE__);
}

// --- Queries -----------------------------------------------------------------

bool ZUResource::isFree() const {
  // The own placeholder, the usual case, is told by its address alone.
  return currentOwner.is(emptyOwner) || isPlaceholder(*currentOwner.load());
}

bool ZUResource::isResourceFree() {
  ZUCriticalSectionWrite lock(currentOwnerMutex);
  return isFree();
}

bool ZUResource::isInGroup(const std::string& resourceName) { return resourceName == name; }

bool ZUResource::isResourceOwned(const std::string& moduleName) {
  boost::shared_ptr<ZUOwner> copy;
  return currentOwner.loadOr(emptyOwner, copy)->moduleName == moduleName;
}

void ZUResource::addResource(boost::shared_ptr<ZUResource> /*resource*/) {
  throw ZUError("ZUResource", "addResource", "Add resource only in resource list", kFile,
                contract::kAddResourceErrorLine);
}

void ZUResource::deleteResource(const std::string& /*resourceName*/) {
  throw ZUError("ZUResource", "deleteResource", "Delete resource only in resource list", kFile,
                contract::kDeleteResourceErrorLine);
}

// --- Acquisition ---------------------------------------------------------------

std::vector<std::string> ZUResource::waitFor(boost::shared_ptr<ZUOwner> owner,
                                             const std::string& label, int timeout,
                                             const std::vector<std::string>& noWaitList) {
  requireOwner(owner, "ZUResource", "waitFor");
  if (ZUObservers::active()) eventsite::requested(name, *owner, label, timeout, noWaitList);

  // Early give-up: busy, and the caller will not wait for this one.
  if (!isResourceFree() && !noWaitList.empty() &&
      std::find(noWaitList.begin(), noWaitList.end(), name) != noWaitList.end()) {
    if (ZUObservers::active())
      eventsite::emit(ZUEvent::Kind::NotObtained, name, owner.get(), currentOwner.load().get());
    return std::vector<std::string>(1, name);
  }

  ZUPendingEvent granted;  // delivered once the locks below are let go
  for (;;) {
    bool busy = false;
    {
      WakeOnExit wake(passEnded_);  // destroyed last: after waitMutex is let go
      ZUCriticalTrueIfLocked pass(waitMutex, busy);
      if (!busy) wake.arm();

      // Already held by an owner of that name (the very same object, the usual
      // case, is told by address).
      if (currentOwner.is(owner)) {
        wake.keptBy(currentOwner, owner);  // nothing changed unless it was let go meanwhile
        if (ZUObservers::active())
          eventsite::granted(granted, name, *owner, ZUEvent::Grant::AlreadyHeld, nullptr);
        return std::vector<std::string>();
      }
      boost::shared_ptr<ZUOwner> copy;
      const boost::shared_ptr<ZUOwner>& holder = currentOwner.loadOr(emptyOwner, copy);
      if (owner->name == holder->name) {
        if (ZUObservers::active())
          eventsite::granted(granted, name, *owner, ZUEvent::Grant::AlreadyHeld, nullptr);
        return std::vector<std::string>();
      }

      // Ask the holder: this may wait up to the time limit, or throw. Our own
      // placeholder is a weak owner, whose answer is always a plain no.
      if (holder != emptyOwner) {
        eventsite::WaitingOn waitingOn(this);
        if (holder->conflict(name, owner, timeout)) {
          if (ZUObservers::active())
            eventsite::granted(granted, name, *owner, ZUEvent::Grant::HandedDown, holder.get());
          currentOwner.store(std::move(owner));  // handed down to a descendant
          wake.arm();
          return std::vector<std::string>();
        }
      }

      // The holder let go; only the pass that holds waitMutex may take it.
      if (!busy) {
        passHoldsWaitMutex();
        if (takeIfFree(owner, granted)) return std::vector<std::string>();
      }
    }
    if (busy && isFree()) {
      // Free, but another pass holds waitMutex and is the one to take it: wait
      // until that pass ends or the holder changes, then look again; at once
      // when either happened already.
      const unsigned ticket = passEnded_.ticket();  // then look again
      if (!isFree()) continue;
      if (waitMutex->tryLock()) {
        waitMutex->unlock();
        passEnded_.wake();
      } else {
        passEnded_.park(ticket, ZUOwnerStrong::kPollPeriodMs);
      }
    } else {
      // Held by an owner (taken meanwhile, or kept): ask it again at once; its
      // conflict wait is what waits.
      std::this_thread::yield();
    }
  }
}

bool ZUResource::takeIfFree(const boost::shared_ptr<ZUOwner>& owner, ZUPendingEvent& granted) {
  ZUCriticalSectionWrite ownerLock(currentOwnerMutex);
  if (!isFree()) return false;
  ZUCriticalSection taking(owner->ownerMutex);
  currentOwner.store(owner);
  if (ZUObservers::active())
    eventsite::granted(granted, name, *owner, ZUEvent::Grant::WasFree, nullptr);
  return true;
}

void ZUResource::switchOwner(boost::shared_ptr<ZUOwner> owner, const std::string& /*label*/,
                             int /*timeout*/) {
  requireOwner(owner, "ZUResource", "switchOwner");
  currentOwner.store(owner);
  passEnded_.wake();
  if (ZUObservers::active()) eventsite::emit(ZUEvent::Kind::Switched, name, owner.get());
}

void ZUResource::release(boost::shared_ptr<ZUOwner> owner) {
  if (!owner) return;
  // Wait for a take-if-free step that is making this owner the holder.
  { ZUCriticalSection settle(owner->ownerMutex); }

  ZUPendingEvent released;  // delivered once the lock below is let go
  ZUCriticalSectionRead lock(currentOwnerMutex);
  boost::shared_ptr<ZUOwner> copy;
  const boost::shared_ptr<ZUOwner>& holder = currentOwner.loadOr(owner, copy);
  if (owner->name == holder->name) {
    boost::shared_ptr<ZUOwner> yielder = owner->getParentOwner(name);
    if (yielder) {
      if (ZUObservers::active())
        eventsite::keep(released, ZUEvent::Kind::HandedBack, name, owner.get(), yielder.get());
      currentOwner.store(std::move(yielder));  // back to the owner that handed it down
      passEnded_.wake();
    } else {
      if (ZUObservers::active())
        eventsite::keep(released, ZUEvent::Kind::Released, name, owner.get());
      holder->freeResource();
      currentOwner.store(emptyOwner);
    }
  } else {
    owner->freeResource();
  }
}

// --- Reports -------------------------------------------------------------------

boost::shared_ptr<ZUOwner> ZUResource::copyOwner() {
  ZUCriticalSectionRead lock(currentOwnerMutex);
  if (currentOwner.is(emptyOwner)) return boost::shared_ptr<ZUOwner>();
  return currentOwner.load();
}

std::string ZUResource::indentedName(int depth, const std::string& name) {
  if (depth > kMaxDepth)
    throw ZUError(
        "ZUResource", "httpGet",
        "depth " + std::to_string(depth) + " is over the limit of " + std::to_string(kMaxDepth),
        kFile, __LINE__);
  std::string text;
  if (depth >= 0) {
    const std::size_t dashes = 3 * (static_cast<std::size_t>(depth) + 1);  // "---" per level
    text.reserve(dashes + name.size() + 64);
    text.append(dashes, '-');
  }
  text += name;
  return text;
}

std::string ZUResource::ownerSegment(const boost::shared_ptr<ZUOwner>& owner) {
  std::string text = " -> ";
  text += owner->moduleName;
  text += ' ';
  text += owner->ownerType;
  text += ' ';
  text += owner->copyWaiters().serializeToText();
  text += ' ';
  text += owner->getTimeout();
  return text;
}

std::string ZUResource::httpGet(int depth) {
  boost::shared_ptr<ZUOwner> holder = copyOwner();
  std::string text = indentedName(depth, name);
  if (holder && !isPlaceholder(*holder)) text += ownerSegment(holder);
  text += "<br />";
  return text;
}

ZUValue ZUResource::holderValue(const std::string& name, const boost::shared_ptr<ZUOwner>& holder) {
  ZUValue result;
  result.arrayPush(ZUValue(name));
  if (holder && !isPlaceholder(*holder)) {
    result.arrayPush(ZUValue(holder->moduleName));
    result.arrayPush(holder->copyWaiters());
  }
  return result;
}

ZUValue ZUResource::ownersGet() {
  boost::shared_ptr<ZUOwner> holder = copyOwner();
  if (name.compare(0, 2, "ZU") == 0) return ZUValue();
  return holderValue(name, holder);
}

}  // namespace ZU
