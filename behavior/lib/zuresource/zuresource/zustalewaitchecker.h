#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zuhost/zuvalue.h>

#include <zuresource/zuownerstrong.h>
#include <zuresource/zuresource.h>
#include <zuresource/zuwaitregistry.h>

namespace ZU {

/// A conflict wait whose holder has not held the wanted resource for longer
/// than ZUStaleWaitChecker::kStaleAfterMs.
///
/// Thread safety: a plain value; concurrent reads are safe.
struct ZUStaleWait {
  ZUWait wait;
  /// Milliseconds since the checker first saw the holder not holding the
  /// resource (a lower bound of how long the wait has been stale).
  long ageMs = 0;
  /// True the first time a checker reports this wait, false afterwards.
  bool firstReport = false;

  /// "stale wait: <waiter> waits on <holder> for <resource>, which it has not
  /// held for <age> ms".
  std::string toString() const;
  /// The wait's value followed by ["staleMs","<decimal>"].
  ZUValue toValue() const;
};

/// Finds stale waits: a waiter that read the holder just before that holder
/// let go, and entered the holder's conflict() just after, clears the
/// holder's release flag and then waits for a holder that holds nothing it
/// wants, until its time limit or for ever. Nothing in the wait itself shows
/// it; this checker compares each recorded wait (ZUWaitRegistry) with the
/// resource's current holders.
///
/// What check() reports: each recorded wait on a resource of the given trees
/// whose holder (by name) is not among that resource's current holders, at
/// every check once this has been seen for longer than kStaleAfterMs without
/// a break. That is one polling period (an ordinary wait, whose holder lets
/// go, ends within it) plus half a period for the waiter's thread to be
/// scheduled after its sleep, so that an ordinary wait is not reported. The
/// current holders of a resource are: a plain resource's holder; a state
/// resource's holders, and its own owner while it is not activated (waits
/// for activation are waits on that owner). Resources are matched by name;
/// a wait on a resource that is not in the trees is not judged. Since the
/// checker only sees the states in which it is called, call it more often
/// than once per polling period (every 100 ms, say).
///
/// Thread safety: thread safe. check() reads the resources and the registry
/// with no lock of its own held, then takes its own mutex to update what it
/// remembers.
class ZUStaleWaitChecker {
 public:
  /// How long a holder must be seen not holding before its waits are stale.
  static const int kStaleAfterMs = ZUOwnerStrong::kPollPeriodMs + ZUOwnerStrong::kPollPeriodMs / 2;

  ZUStaleWaitChecker() = default;
  ZUStaleWaitChecker(const ZUStaleWaitChecker&) = delete;
  ZUStaleWaitChecker& operator=(const ZUStaleWaitChecker&) = delete;

  /// The stale waits among the running ones, oldest wait first. `roots` are
  /// the trees to look in; groups are walked through getResourceList.
  /// Takes: the registry's mutex (snapshot); each group's resourceListMutex
  /// (read) while copying its members; a plain resource's currentOwnerMutex
  /// (read) while copying the holder; a state resource's holdersMutex while
  /// copying the holders' names; then this checker's mutex.
  std::vector<ZUStaleWait> check(const std::vector<boost::shared_ptr<ZUResource> >& roots)
      ZU_EXCLUDES(mutex_);

 private:
  struct Seen {
    std::chrono::steady_clock::time_point notHoldingSince;
    bool reported = false;
  };
  ZUMutex mutex_;
  /// By wait id: the waits whose holder was not holding at the last check.
  /// Entries go when the wait ends or its holder holds again.
  std::map<std::uint64_t, Seen> seen_ ZU_GUARDED_BY(mutex_);
};

}  // namespace ZU
