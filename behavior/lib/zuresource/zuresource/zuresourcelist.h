#pragma once

#include <atomic>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zuresource/zuresource.h>

namespace ZU {

/// A resource group: an ordered list of member resources (plain, state or
/// groups) that answers every operation from its members, asked in list
/// order, and is acquired member by member. A member's failed wait gives the
/// owner back from every member before the error passes on.
///
/// Thread safety: thread safe. The group's own operations take only
/// resourceListMutex, and hold it while they call into the members, so locks
/// are always taken from the outer group inwards (the whole library's order:
/// docs/design.md). A walk that fails or is aborted gives the owner back
/// from the members under the read side it already holds, never taking it a
/// second time (a writer waiting meanwhile would hold that up).
///
/// Choices made here: addResource refuses an empty handle and any addition
/// that would make a group a member of itself (directly or through nested
/// groups); isResourceOwned and getResourceList take the read lock.
class ZUResourceList : public ZUResource {
 public:
  // --- Fields, in declaration order (after ZUResource's). ------------------

  /// Guarded by resourceListMutex. The members, in the order they were added;
  /// a resource may stand more than once.
  std::vector<boost::shared_ptr<ZUResource> > resourceList ZU_GUARDED_BY(resourceListMutex);
  /// Immutable handle. Read side for every walk, write side to change the list.
  boost::shared_ptr<ZUMutexRW> resourceListMutex;
  /// Atomic, read afresh before each member without a lock. While true,
  /// waitFor and switchOwner stop and give the owner back from the whole
  /// group (waitFor then returns an empty list). False at construction; the
  /// library never sets it: the manager module does, through
  /// setAbortRequested().
  std::atomic<bool> abortRequested;

  /// An empty group named `name`. No lock.
  ZUResourceList(const std::string& name, boost::shared_ptr<ZUResource> parent);
  /// Drops the members (releasing and telling none). No lock.
  ~ZUResourceList() override;

  /// Sets or clears abortRequested; it takes effect before the next member of
  /// any running or later waitFor/switchOwner on this group. No lock.
  void setAbortRequested(bool requested);

  /// A copy of the member list. Takes: resourceListMutex (read).
  std::vector<boost::shared_ptr<ZUResource> > getResourceList() ZU_EXCLUDES(resourceListMutex);

  /// Each member's waitFor in list order with the same arguments; returns the
  /// names not obtained, joined in member order. On a ZUError from a member,
  /// releases the owner from every member and rethrows that very error.
  /// Throws ZUError (nothing changed) for an empty `owner`.
  /// Takes: resourceListMutex (read) for the whole call, members' locks inside.
  std::vector<std::string> waitFor(boost::shared_ptr<ZUOwner> owner, const std::string& label,
                                   int timeout, const std::vector<std::string>& noWaitList)
      ZU_EXCLUDES(resourceListMutex) override;
  /// Each member's switchOwner in list order. An error ends the walk with
  /// nothing undone. Throws ZUError (nothing changed) for an empty `owner`.
  /// Takes: resourceListMutex (read) for the whole call.
  void switchOwner(boost::shared_ptr<ZUOwner> owner, const std::string& label, int timeout)
      ZU_EXCLUDES(resourceListMutex) override;
  /// Each member's release in list order. Takes: resourceListMutex (read).
  void release(boost::shared_ptr<ZUOwner> owner) ZU_EXCLUDES(resourceListMutex) override;
  /// Whether every member is free (stops at the first busy one); true when
  /// empty. Takes: resourceListMutex (read).
  bool isResourceFree() ZU_EXCLUDES(resourceListMutex) override;
  /// Appends `resource` (again, if already a member). Throws ZUError and
  /// leaves the list as it was for an empty handle, for the group itself, or
  /// for a group that contains this group. Takes: a process-wide mutex that
  /// serialises additions to groups, the members' read locks while looking
  /// for a cycle, then resourceListMutex (write).
  void addResource(boost::shared_ptr<ZUResource> resource) ZU_EXCLUDES(resourceListMutex) override;
  /// Whether `resourceName` is the group's name or is in a member, depth
  /// first. Takes: resourceListMutex (read).
  bool isInGroup(const std::string& resourceName) ZU_EXCLUDES(resourceListMutex) override;
  /// Removes the first direct member of that name; throws ZUError "Resource
  /// not found <name>" when there is none. Takes: resourceListMutex (write).
  void deleteResource(const std::string& resourceName) ZU_EXCLUDES(resourceListMutex) override;
  /// Whether every member is owned by `moduleName` (true when empty).
  /// Takes: resourceListMutex (read).
  bool isResourceOwned(const std::string& moduleName) ZU_EXCLUDES(resourceListMutex) override;
  /// The group's own line, then each member's at depth + 1, however deep.
  /// Takes: resourceListMutex (read), and each nested group's while its
  /// members are written (one per level: more than 64 levels are more than
  /// the thread sanitizer follows).
  std::string httpGet(int depth) ZU_EXCLUDES(resourceListMutex) override;
  /// [own value] or [own value, [valid member values...]]; the own value alone
  /// when it is invalid. Takes: resourceListMutex (read).
  ZUValue ownersGet() ZU_EXCLUDES(resourceListMutex) override;

 private:
  /// Each member's release in list order, under the read side the caller
  /// already holds (a failed or stopped walk gives the owner back this way).
  void releaseMembers(const boost::shared_ptr<ZUOwner>& owner)
      ZU_REQUIRES_SHARED(resourceListMutex);
  /// The members of `group`, whose resourceListMutex (read) the caller holds
  /// through a lock kept in its list of open groups (httpGet's walk), where
  /// the analysis cannot follow it. No lock.
  static const std::vector<boost::shared_ptr<ZUResource> >& membersHeldOpen(
      const ZUResourceList& group);

  /// Whether this group is `resource` or is reachable through its members.
  /// Takes: the read side of each group visited, one at a time.
  bool reachableFrom(const boost::shared_ptr<ZUResource>& resource);
};

}  // namespace ZU
