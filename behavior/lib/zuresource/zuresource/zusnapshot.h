#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zuhost/zuvalue.h>

#include <zuresource/zuresource.h>
#include <zuresource/zustalewaitchecker.h>
#include <zuresource/zuwaitregistry.h>

namespace ZU {

/// A picture of the arbitration at one moment: the resources of some trees,
/// the owners that hold or wait, the running waits, and the cycles and stale
/// waits that stand. Each resource is read whole under its own read lock; two
/// resources may be read a moment apart.
///
/// Thread safety: a plain value; concurrent reads are safe.
struct ZUSnapshot {
  struct Resource {
    std::string name;
    /// "plain", "state" or "group".
    std::string kind;
    /// Plain: the holder (none when free); state: the holders in the order
    /// they were granted.
    std::vector<std::string> holders;
    /// State: whether it is activated.
    bool activated = false;
    /// Group: the members' names, in list order (each is listed itself too).
    std::vector<std::string> members;
  };
  struct Owner {
    std::string name;
    std::string module;
    /// (resource, owner that handed it down to this owner), for the
    /// hand-downs seen while observers were registered.
    std::vector<std::pair<std::string, std::string> > parentOwners;
    /// The owner's release flag.
    bool releaseFlag = false;
  };

  /// When it was taken (steady clock).
  std::chrono::steady_clock::time_point taken;
  /// Depth first, each group before its members; a resource reachable twice
  /// is listed once.
  std::vector<Resource> resources;
  /// Every owner that holds one of `resources` or takes part in a wait, by
  /// name, in the order first met.
  std::vector<Owner> owners;
  /// The running waits, oldest first.
  std::vector<ZUWait> waits;
  /// The cycles among `waits`.
  std::vector<ZUWaitCycle> cycles;
  /// The stale waits the waits' own polls have reported and that still run
  /// (found while observers are registered).
  std::vector<ZUStaleWait> staleWaits;

  /// [["resources",[…]],["owners",[…]],["waits",[…]],["cycles",[…]],
  ///  ["staleWaits",[…]]], each entry a list of [key, value] pairs as
  /// ZUWait::toValue writes them; flags as "true"/"false", a wait's time
  /// limit as ["timeout","<seconds>"], a cycle's forming as ["formedMsAgo",…].
  ZUValue toValue() const;
};

/// Takes a snapshot of the trees `roots` (empty handles are skipped).
/// Takes, one at a time: each group's resourceListMutex (read) while copying
/// its members; a plain resource's currentOwnerMutex (read); a state
/// resource's holdersMutex; the wait registry's mutex; the reports' mutex.
ZUSnapshot takeSnapshot(const std::vector<boost::shared_ptr<ZUResource> >& roots);

/// takeSnapshot(roots).toValue().
ZUValue snapshotValue(const std::vector<boost::shared_ptr<ZUResource> >& roots);

}  // namespace ZU
