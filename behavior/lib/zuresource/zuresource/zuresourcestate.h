#pragma once

#include <atomic>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zuresource/zuresource.h>

namespace ZU {

/// A resource that stands for a condition the manager module activates and
/// deactivates with setState. While activated, any number of owners hold it
/// at once; while not, requests wait for activation (a conflict on the
/// resource's own strong owner, `stateOwner`, which activation frees).
/// Deactivation tells every holder of a conflict, as if a strong owner named
/// after the resource wanted it back; holders stay until they release.
///
/// Thread safety: thread safe. Lock order: stateMutex, then holdersMutex; an
/// owner's ownerMutex before holdersMutex. Holders' conflicts are called
/// under holdersMutex (deactivation); no other lock of this class is held
/// while an owner's code runs. The whole library's order: docs/design.md.
class ZUResourceState : public ZUResource {
 public:
  // --- Fields, in declaration order (after ZUResource's). ------------------

  /// Atomic. True while activated. Written by setState (under stateMutex) and
  /// releaseState (under holdersMutex); read without a lock.
  std::atomic<bool> state;
  /// Guarded by holdersMutex. The holders, in the order they were granted;
  /// an owner granted twice stands twice.
  std::vector<boost::shared_ptr<ZUOwner> > holders ZU_GUARDED_BY(holdersMutex);
  /// Immutable after construction: a strong owner named after the resource
  /// (name and module), with no broker, on which requests wait for activation.
  boost::shared_ptr<ZUOwner> stateOwner;
  /// Immutable handle. Guards `holders`.
  boost::shared_ptr<ZUMutex> holdersMutex;
  /// Immutable handle. Serialises setState.
  boost::shared_ptr<ZUMutex> stateMutex;

  /// A state resource named `name`, not activated, with no holders. No lock.
  ZUResourceState(const std::string& name, boost::shared_ptr<ZUResource> parent);
  /// Drops the fields; releases and tells nobody. No lock.
  ~ZUResourceState() override;

  /// Granted at once while activated (the owner is appended to `holders`).
  /// Otherwise returns {name} at once when `name` is in `noWaitList`, else
  /// waits for activation through stateOwner's conflict (up to `timeout`
  /// seconds, negative for no limit), whose ZUError passes through with the
  /// owner not registered. The first wait makes stateOwner the holder shown by
  /// ownersGet. Throws ZUError (nothing changed) for an empty `owner`.
  /// Takes: currentOwnerMutex (write) to set the holder before a wait; no lock
  /// during the wait; to register, the owner's ownerMutex then holdersMutex.
  std::vector<std::string> waitFor(boost::shared_ptr<ZUOwner> owner, const std::string& label,
                                   int timeout, const std::vector<std::string>& noWaitList)
      ZU_EXCLUDES(currentOwnerMutex, holdersMutex) override;
  /// Tells `owner` freeResource() (holder or not) and removes every holder of
  /// the same name. An empty `owner` does nothing. Takes: holdersMutex.
  void release(boost::shared_ptr<ZUOwner> owner) ZU_EXCLUDES(holdersMutex) override;
  /// Whether the state is activated. No lock.
  bool isResourceFree() override;
  /// The status line: indentation, name, " (Activated) " while activated, a
  /// " -> " segment per holder, " Waiter: ", the activation waiters, "<br />".
  /// Takes: holdersMutex while walking the holders; each owner's waitersMutex
  /// (read) while copying its waiters.
  std::string httpGet(int depth) ZU_EXCLUDES(holdersMutex) override;
  /// [name] until a request has waited, then [name, holder's module, holder's
  /// waiters] of the resource's holder (stateOwner unless switched).
  /// Takes: currentOwnerMutex (read) while copying the holder.
  ZUValue ownersGet() ZU_EXCLUDES(currentOwnerMutex) override;

  /// Activates (true: frees stateOwner, so that waiting requests go through
  /// within one polling period) or deactivates (false: releaseState()). A
  /// ZUError on the way is dropped. Takes: stateMutex; with false also
  /// holdersMutex, for one polling period per strong holder at most.
  void setState(bool activated) ZU_EXCLUDES(stateMutex, holdersMutex);
  /// Deactivates and tells each holder in order of a conflict by a temporary
  /// strong owner named after the resource, with timeout 0; the first error
  /// (a strong holder that did not let go within one polling period) ends the
  /// pass and passes to the caller. Nobody is removed from `holders`.
  /// Takes: holdersMutex for the whole pass.
  void releaseState() ZU_EXCLUDES(holdersMutex);
};

}  // namespace ZU
