#pragma once

#include <atomic>
#include <map>
#include <string>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <zuhost/zubroker.h>
#include <zuhost/zuerror.h>
#include <zuhost/zuhierarchyowner.h>
#include <zuhost/zumutex.h>
#include <zuhost/zuthreadannotations.h>
#include <zuhost/zuvalue.h>

namespace ZU {

/// The party that holds and requests resources: identity, parent owners,
/// waiters and wait timer. Abstract; the concrete owners are ZUOwnerStrong
/// (every real requester) and ZUOwnerWeak (a resource's placeholder).
///
/// Thread safety: shared between threads. Each field below says what guards
/// it; the resource classes read the public fields directly under the same
/// rules. Owners are always created into a boost::shared_ptr of their concrete
/// class and never deleted through a ZUOwner pointer (the destructor is
/// protected and not virtual).
class ZUOwner : public boost::enable_shared_from_this<ZUOwner> {
 public:
  // --- Fields, in declaration order. --------------------------------------

  /// Immutable after construction (the handle; the mutex itself is locked by
  /// the resource classes when they hand a resource to or from this owner,
  /// never by the owner's own operations).
  boost::shared_ptr<ZUMutex> ownerMutex;
  /// Atomic. Release flag: set by freeResource() and by the strong owner's
  /// destructor, cleared when a conflict wait on this owner starts, polled by
  /// conflict waits on this owner and by this owner's own waits as requester.
  std::atomic<bool> resourceFreed;
  /// Immutable after construction. Hierarchical owner name; owners are told
  /// apart by this string, byte for byte.
  std::string name;
  /// Immutable after construction. The host module that stands for the owner.
  std::string moduleName;
  /// Not locked: set by the host after creation, before the owner is shared.
  boost::weak_ptr<ZUBroker> parentBroker;
  /// Immutable handle. Held shared by every running conflict() on this owner,
  /// exclusively by the concrete destructors.
  boost::shared_ptr<ZUMutexRW> conflictMutex;
  /// Immutable after construction: "eStrong" or "eWeak".
  std::string ownerType;
  /// Immutable handle; empty in weak owners. Guards `waiters`.
  boost::shared_ptr<ZUMutexRW> waitersMutex;
  /// Guarded by waitersMutex (exclusive to change, shared to copy). Module
  /// names of the owners waiting on this owner, oldest first. A weak owner
  /// never changes it and it is read without a lock there.
  ZUValue waiters ZU_GUARDED_BY(waitersMutex);
  /// Immutable after construction. The host's handle; never read here.
  boost::shared_ptr<ZUHierarchyOwner> hierarchyOwner;
  /// Not locked: callers serialise calls on one owner (it is written by this
  /// owner's own waits and read by its own releases, one thread per owner).
  /// Resource name -> owner that handed that resource down to this owner.
  std::map<std::string, boost::weak_ptr<ZUOwner> > parentOwners;
  /// Atomic, milliseconds. Length of the latest conflict wait on this owner,
  /// counted in polling periods; kept after that wait ends.
  std::atomic<int> timeout;

  // --- Virtual operations, in slot order. ---------------------------------

  /// `requester` (never empty) wants the resource `resourceName` that this
  /// owner holds; `timeoutSeconds` in seconds (unlike the `timeout` field, in
  /// milliseconds), negative for no limit. Returns true when the resource is
  /// handed down to `requester` at once, false when this owner no longer
  /// holds on to it. Throws ZUError (contract::kWaitErrorModule,
  /// contract::kWaitErrorMethod) when the requester was stopped or the time
  /// limit passed.
  virtual bool conflict(const std::string& resourceName, boost::shared_ptr<ZUOwner> requester,
                        int timeoutSeconds) = 0;
  /// This owner gives up its resources. The base version does nothing.
  virtual void freeResource();
  /// Whether `other` is an ancestor of this owner. The base answer is false.
  virtual bool isParent(boost::shared_ptr<ZUOwner> other);

  // --- Non-virtual services. -----------------------------------------------

  /// A shared handle that shares ownership with the one the owner was created
  /// into. Throws boost::bad_weak_ptr when no shared handle owns it.
  boost::shared_ptr<ZUOwner> getThis();
  /// Stores a weak handle on `broker`, replacing any earlier one. No lock.
  void setParentBroker(boost::shared_ptr<ZUBroker> broker);
  /// Whole seconds of the latest wait on this owner, as decimal text.
  std::string getTimeout();
  /// The owner recorded for `resourceName` (empty when none was recorded or
  /// it no longer exists). Never changes the map. No lock.
  boost::shared_ptr<ZUOwner> getParentOwner(const std::string& resourceName);
  /// Records `parent` (may be empty) for `resourceName`, overwriting. No lock.
  void setParentOwner(boost::shared_ptr<ZUOwner> parent, const std::string& resourceName);
  /// A copy of `waiters`, taken under waitersMutex held shared where the
  /// owner has one. Takes: waitersMutex (read).
  ZUValue copyWaiters() const ZU_EXCLUDES(waitersMutex);

 protected:
  /// Every handle and string empty, `waiters` invalid, flag false, timeout 0.
  ZUOwner();
  /// Destroys the fields; locks nothing (the concrete destructors take
  /// conflictMutex first).
  ~ZUOwner();

  ZUOwner(const ZUOwner&) = delete;
  ZUOwner& operator=(const ZUOwner&) = delete;

 private:
  /// `waiters` of an owner that has no waitersMutex. No lock.
  const ZUValue& unchangingWaiters() const;
};

}  // namespace ZU
