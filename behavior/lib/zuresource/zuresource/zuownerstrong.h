#pragma once

#include <string>

#include <boost/shared_ptr.hpp>

#include <zuresource/zuowner.h>

namespace ZU {

/// The owner of every real requester (a behaviour box). It settles a conflict
/// on a resource it holds by handing the resource down to a descendant, or by
/// making the requester wait, polling every 200 ms, until this owner lets go,
/// the requester is stopped or the time limit passes; the holder's module is
/// told "__onResource__" once per wait.
///
/// Thread safety: thread safe. Any number of conflicts may run on one owner
/// at once, each in its requester's thread; the fields are guarded as
/// ZUOwner documents. Adds no fields.
class ZUOwnerStrong final : public ZUOwner {
 public:
  /// The polling period of a conflict wait: a release is seen at most this
  /// late.
  static constexpr int kPollPeriodMs = 200;

  /// Sets, in order: timeout 0, ownerType "eStrong", name, moduleName, flag
  /// false, conflictMutex, waitersMutex, ownerMutex, hierarchyOwner.
  ZUOwnerStrong(const std::string& name, const std::string& moduleName,
                boost::shared_ptr<ZUHierarchyOwner> hierarchyOwner);
  /// Sets the release flag, so that every wait on this owner ends at its next
  /// poll, then takes conflictMutex exclusively (waiting for every running
  /// conflict() to return) and lets it go. Takes: conflictMutex (write).
  ~ZUOwnerStrong() ZU_EXCLUDES(conflictMutex);

  /// See ZUOwner::conflict. Hands down at once (true) when `requester` is a
  /// descendant of this owner, recording this owner as its parent owner for
  /// `resourceName`. Otherwise adds the requester's module to `waiters`,
  /// clears this owner's release flag, notifies this owner's module and polls:
  /// false once this owner is released; ZUError "box stop while waiting" when
  /// the requester's own flag is set at a poll; ZUError "resource wait has
  /// timeouted on <resourceName>" at the first poll after the deadline
  /// (`timeoutSeconds` >= 0, wall clock). Every way out of the wait removes the
  /// oldest entry of `waiters`. An error of the broker while the module is
  /// looked up propagates unchanged; the waiter entry added for this wait is
  /// removed first, so that no entry is left behind.
  /// Throws boost::bad_weak_ptr when no shared handle owns this owner, and
  /// ZUError (nothing changed) for an empty `requester`.
  /// Takes: conflictMutex (read) for the whole call; inside it, waitersMutex
  /// (write) around each change of `waiters`, and the wait registry's mutex
  /// briefly as a wait starts and as it ends (ZUWaitRegistry records every
  /// wait). The caller may hold one lock of the resource (its waitMutex, or a
  /// state resource's holdersMutex).
  bool conflict(const std::string& resourceName, boost::shared_ptr<ZUOwner> requester,
                int timeoutSeconds) ZU_EXCLUDES(conflictMutex, waitersMutex) override;
  /// Sets the release flag: every wait on this owner returns false at its next
  /// poll, and this owner's own pending wait fails. No lock.
  void freeResource() override;
  /// True exactly when `other`'s name is a proper byte prefix of this name
  /// (no separator needed: "ab" is a parent of "abx"). An empty `other`
  /// handle is no parent.
  bool isParent(boost::shared_ptr<ZUOwner> other) override;

  /// Appends the requester's moduleName to `waiters`. `timeout` plays no part.
  /// Throws ZUError (nothing changed) for an empty `requester`.
  /// Takes: waitersMutex (write).
  void addWaiter(boost::shared_ptr<ZUOwner> requester, int timeout) ZU_EXCLUDES(waitersMutex);

  /// Starts "__onResource__" with `resourceName` on this owner's module through
  /// the broker, asynchronously; nothing when no broker is set or it is gone.
  /// A ZUError of the call itself is printed (one line on standard output) and
  /// dropped; an error of the module lookup propagates. No lock.
  void notifyConflictOwner(const std::string& resourceName, boost::shared_ptr<ZUOwner> requester,
                           int timeout);
  /// Hooks for the host's behaviour editor: each writes one log record
  /// (level 3, contract::kLogCategory) and does nothing else.
  void notifyConflictVantor(boost::shared_ptr<ZUOwner> requester, int timeout);
  void notifyEndConflictVantor(boost::shared_ptr<ZUOwner> requester, int timeout);

 private:
  /// Removes the oldest entry of `waiters`. Takes: waitersMutex (write).
  void popWaiter() ZU_EXCLUDES(waitersMutex);
};

}  // namespace ZU
