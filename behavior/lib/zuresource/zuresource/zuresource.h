#pragma once

#include <atomic>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <zuhost/zuerror.h>
#include <zuhost/zuhierarchyowner.h>
#include <zuhost/zumutex.h>
#include <zuhost/zuthreadannotations.h>
#include <zuhost/zuvalue.h>
#include <zuhost/zuwaitpoint.h>

#include <zuresource/zuowner.h>
#include <zuresource/zuownerstrong.h>
#include <zuresource/zuownerweak.h>

namespace ZU {

class ZUPendingEvent;

/// The holder handle of a resource: a shared owner handle that several threads
/// may copy and replace at once, each copy and each replacement whole (a
/// reader sees the old or the new holder, never a mixture).
///
/// Thread safety: thread safe. A short spin lock guards the handle; the
/// holder's address is also kept in an atomic, so that "is the holder this
/// owner?" is answered without the lock and without touching the holder's
/// reference count.
class ZUHolderHandle {
 public:
  ZUHolderHandle() = default;
  ZUHolderHandle(const ZUHolderHandle&) = delete;
  ZUHolderHandle& operator=(const ZUHolderHandle&) = delete;

  /// A copy of the handle. Takes: the spin lock, for the copy.
  boost::shared_ptr<ZUOwner> load() const;
  /// Replaces the handle; the old holder is dropped after the lock is let go.
  /// Takes: the spin lock, for the swap.
  void store(boost::shared_ptr<ZUOwner> owner);
  /// Whether the holder is the very object `owner` (addresses compared; the
  /// holder is not read). No lock.
  bool is(const boost::shared_ptr<ZUOwner>& owner) const {
    return address_.load(std::memory_order_acquire) == owner.get();
  }
  /// The holder: `known` itself when the holder is that very object (the
  /// caller keeps `known` alive), otherwise a copy of the handle put in
  /// `copy`. Spares the copy, and its reference counting, in the usual cases.
  const boost::shared_ptr<ZUOwner>& loadOr(const boost::shared_ptr<ZUOwner>& known,
                                           boost::shared_ptr<ZUOwner>& copy) const {
    if (is(known)) return known;
    copy = load();
    return copy;
  }

 private:
  /// A spin lock: a thread that finds it taken yields and tries again.
  class ZU_CAPABILITY("spin lock") Spin {
   public:
    void lock() ZU_ACQUIRE();
    void unlock() ZU_RELEASE();

   private:
    std::atomic_flag busy_ = ATOMIC_FLAG_INIT;
  };
  class SpinLock;

  /// The spin lock.
  mutable Spin spin_;
  boost::shared_ptr<ZUOwner> owner_ ZU_GUARDED_BY(spin_);
  /// Atomic: owner_.get(), written under spin_ with owner_.
  std::atomic<const ZUOwner*> address_{nullptr};
};

/// One named resource, held by exactly one owner at a time; also the base of
/// state resources and groups, whose virtual operations are the interface of
/// every kind of resource. A resource that no real owner holds is held by its
/// own placeholder, a weak owner named "emptyOwner".
///
/// Thread safety: thread safe; several operations may run at once on one
/// resource. Lock order within a resource: waitMutex, then currentOwnerMutex,
/// then an owner's ownerMutex (the whole library's order: docs/design.md).
/// Owners are told apart by name, never by object.
class ZUResource {
 public:
  // --- Fields, in declaration order. --------------------------------------

  /// Immutable after init.
  std::string name;
  /// Atomic handle, never empty after init. Replaced under the write side of
  /// currentOwnerMutex (take-if-free), the read side (release) or no lock
  /// (hand-down, switchOwner); the atomic handle makes each copy and each
  /// replacement whole, so a reader sees the old or the new holder.
  ZUHolderHandle currentOwner;
  /// Immutable handle; no operation of the library locks it (it is the
  /// manager module's).
  boost::shared_ptr<ZUMutex> resourceMutex;
  /// Immutable after init: this resource's own placeholder.
  boost::shared_ptr<ZUOwner> emptyOwner;
  /// Immutable handle. Try-locked for each pass of waitFor; only the pass
  /// that holds it may take a free resource.
  boost::shared_ptr<ZUMutex> waitMutex;
  /// Immutable handle. See currentOwner.
  boost::shared_ptr<ZUMutexRW> currentOwnerMutex;
  /// Immutable after init; stored only, never followed.
  boost::weak_ptr<ZUResource> parent;

  /// A free resource named `name`; `parent` may be empty and is not told.
  ZUResource(const std::string& name, boost::shared_ptr<ZUResource> parent);
  /// Destroys the fields; releases and tells nobody. Takes no lock.
  virtual ~ZUResource();

  // --- Virtual operations, in slot order. ---------------------------------

  /// Acquires the resource for `owner`. Returns an empty list when `owner`
  /// holds it on return, or {name} at once when it is busy and `name` is in
  /// `noWaitList`. Otherwise asks the holder's conflict() (which may wait up
  /// to `timeout` seconds, negative for no limit) and retries until the
  /// resource is taken; the holder's ZUError passes through unchanged and
  /// leaves the holder as it was. `label` is not used.
  /// Throws ZUError (nothing changed) for an empty `owner`.
  /// Takes: per pass, waitMutex by try-lock (the holder's conflict runs under
  /// it when taken); to take a free resource, currentOwnerMutex (write) and
  /// inside it the owner's ownerMutex. Between passes, a pass that did not get
  /// waitMutex and left the resource free sleeps on passEnded_, holding none of
  /// the resource's locks (see there), after one more try-lock of waitMutex
  /// (let go at once when taken).
  virtual std::vector<std::string> waitFor(boost::shared_ptr<ZUOwner> owner,
                                           const std::string& label, int timeout,
                                           const std::vector<std::string>& noWaitList)
      ZU_EXCLUDES(waitMutex, currentOwnerMutex);
  /// Makes `owner` the holder unconditionally; tells nobody. `label` and
  /// `timeout` are not used. Throws ZUError (nothing changed) for an empty
  /// `owner`. Takes no lock of the resource (wakes passEnded_).
  virtual void switchOwner(boost::shared_ptr<ZUOwner> owner, const std::string& label, int timeout);
  /// Gives the resource back when `owner` holds it (by name): to the owner
  /// that handed it down to `owner`, if it still exists, else to the
  /// placeholder, telling the holder freeResource(). When `owner` does not
  /// hold it, tells `owner` freeResource() (ending its own pending wait). An
  /// empty `owner` changes nothing.
  /// Takes: the owner's ownerMutex (locked and unlocked at once), then
  /// currentOwnerMutex (read) for the rest.
  virtual void release(boost::shared_ptr<ZUOwner> owner) ZU_EXCLUDES(currentOwnerMutex);
  /// Whether the holder is named "emptyOwner". Takes: currentOwnerMutex (write).
  virtual bool isResourceFree() ZU_EXCLUDES(currentOwnerMutex);
  /// Refuses: throws ZUError "Add resource only in resource list".
  virtual void addResource(boost::shared_ptr<ZUResource> resource);
  /// Whether `resourceName` is this resource's name. No lock.
  virtual bool isInGroup(const std::string& resourceName);
  /// Refuses: throws ZUError "Delete resource only in resource list".
  virtual void deleteResource(const std::string& resourceName);
  /// Whether the holder's moduleName is `moduleName` (a free resource answers
  /// true for "emptyOwner"). No lock.
  virtual bool isResourceOwned(const std::string& moduleName);
  /// The status line: "---" depth+1 times (none for a negative depth), the
  /// name, and when held " -> <module> <ownerType> <waiters> <seconds>",
  /// then "<br />". Takes: currentOwnerMutex (read) while copying the holder;
  /// the holder's waitersMutex (read) while copying its waiters.
  virtual std::string httpGet(int depth) ZU_EXCLUDES(currentOwnerMutex);
  /// The status value: invalid for a name that starts with "ZU"; otherwise
  /// [name] when free, [name, holder's module, holder's waiters] when held.
  /// Takes the same locks as httpGet.
  virtual ZUValue ownersGet() ZU_EXCLUDES(currentOwnerMutex);

  /// The owner factory: always a strong owner (the int is ignored). No lock.
  static boost::shared_ptr<ZUOwner> createOwner(int, const std::string& name,
                                                const std::string& moduleName,
                                                boost::shared_ptr<ZUHierarchyOwner> hierarchyOwner);

 protected:
  /// Leaves every field empty; derived constructors call init().
  ZUResource();
  /// Sets name, a new placeholder (also the holder), resourceMutex, waitMutex,
  /// currentOwnerMutex and parent, replacing what the fields held. No lock.
  void init(const std::string& name, boost::shared_ptr<ZUResource> parent);

  /// The holder, copied under currentOwnerMutex (read); an empty handle when
  /// the holder is this resource's own placeholder, which reports as free.
  boost::shared_ptr<ZUOwner> copyOwner() ZU_EXCLUDES(currentOwnerMutex);
  /// [name] when `holder` is empty or a placeholder, else [name, holder's
  /// module, holder's waiters]: the value ownersGet() reports for one
  /// resource. Takes: the holder's waitersMutex (read), via copyWaiters().
  static ZUValue holderValue(const std::string& name, const boost::shared_ptr<ZUOwner>& holder);
  /// Whether the holder is named "emptyOwner". The caller holds
  /// currentOwnerMutex (either side) or accepts an answer that may be stale.
  bool isFree() const;
  /// "---" depth+1 times (nothing when depth is negative), then `name`.
  /// Throws ZUError for a depth too large to render (over 1,000,000).
  static std::string indentedName(int depth, const std::string& name);
  /// The " -> <module> <type> <waiters> <seconds>" segment of `owner`.
  static std::string ownerSegment(const boost::shared_ptr<ZUOwner>& owner);
  /// Throws ZUError ("<cls>", "<method>", "empty owner handle") when `owner`
  /// is empty.
  static void requireOwner(const boost::shared_ptr<ZUOwner>& owner, const char* cls,
                           const char* method);

  ZUResource(const ZUResource&) = delete;
  ZUResource& operator=(const ZUResource&) = delete;

 private:
  /// Makes `owner` the holder if the resource is free: the step of the one
  /// pass that holds waitMutex. True when taken; Granted (was free) is kept
  /// in `granted`. Takes: currentOwnerMutex (write), inside it the owner's
  /// ownerMutex.
  bool takeIfFree(const boost::shared_ptr<ZUOwner>& owner, ZUPendingEvent& granted)
      ZU_REQUIRES(waitMutex) ZU_EXCLUDES(currentOwnerMutex);
  /// Tells the analysis that this pass holds waitMutex: it took it with the
  /// try-lock whose result is the flag `busy`, which the analysis cannot
  /// follow. Call it only where `busy` is false. Does nothing.
  void passHoldsWaitMutex() const ZU_ASSERT_CAPABILITY(waitMutex) {}

  /// Atomic (a wait point). Where waitFor's passes wait for their turn: a pass
  /// that did not get waitMutex and found the resource free may not take it,
  /// and instead of retrying at once it sleeps here, holding none of the
  /// resource's locks, until either
  /// - a pass that held waitMutex ends (by any way out, after letting it go:
  ///   the freed waitMutex may now be taken, or the holder it took asked);
  ///   a pass that found its owner already holding the resource wakes only
  ///   when the holder is no longer that owner as it ends, or
  /// - the holder is replaced other than by such a pass or by a release to the
  ///   placeholder (hand-down by a pass without waitMutex, switchOwner, a
  ///   release back to the owner that handed the resource down), or
  /// - one polling period has passed: a sleeping pass retries at least that
  ///   often, so a holder stored into the public handle from outside is seen
  ///   as late as a conflict wait sees a release, and a pass goes on retrying
  ///   like before until the waitMutex holder's own time limit or release
  ///   flag ends that holder's pass.
  /// No wakeup is lost. A pass about to sleep takes its ticket, then looks
  /// again: it goes on at once when the resource is no longer free, or when
  /// it gets waitMutex (which it lets go at once, waking the others).
  /// Otherwise another pass holds waitMutex and lets go after the ticket was
  /// taken; every waking event wakes after it is done, so each one after the
  /// ticket ends the sleep (see ZUWaitPoint). The one waitMutex holder that
  /// may wake nobody, a pass that found its owner already holding the
  /// resource, looks after letting go whether the holder is still its owner:
  /// if so, whatever made that owner the holder again after the sleeper saw
  /// the resource free has woken the sleeper. A release to the placeholder
  /// wakes nobody: a sleeping pass already saw the resource free.
  ZUWaitPoint passEnded_;
};

}  // namespace ZU
