#pragma once

#include <memory>
#include <optional>
#include <string>

#include <boost/shared_ptr.hpp>
#include <gtest/gtest.h>

#include <zuhost/zuerror.h>
#include <zuresource/zuowner.h>

#include "support/guardedthread.h"
#include "support/stopwatch.h"

namespace zutest {

/// How one conflict() call ended.
struct ConflictOutcome {
  bool result = false;               // what it returned (false when it threw)
  std::optional<ZU::ZUError> error;  // the ZUError it threw, if any
  bool otherException = false;       // it threw something else
  long elapsedMs = 0;                // from the start of the run to its end
};

/// Runs `holder.conflict(resource, requester, timeout)` in a thread of its own,
/// the way a resource does for a waiting requester, and records how and when
/// it ended. The run reaches the holder through a plain reference and keeps no
/// handle on it, so a test can drop the holder's last handle while it waits.
///
/// Thread safety: owned and read by one test thread; the outcome is written by
/// the run's thread before it signals its end.
class ConflictRun {
 public:
  ConflictRun(ZU::ZUOwner& holder, const std::string& resource,
              boost::shared_ptr<ZU::ZUOwner> requester, int timeout);
  /// Waits for the end as wait(10000) does.
  ~ConflictRun();
  ConflictRun(const ConflictRun&) = delete;
  ConflictRun& operator=(const ConflictRun&) = delete;

  /// Waits for the end and returns the outcome. A call still running after
  /// `ms` aborts the test program: a hung wait must fail, not stall the suite.
  ConflictOutcome wait(int ms = 5000);

 private:
  std::shared_ptr<ConflictOutcome> outcome_;  // written by the run, then read here
  GuardedThread thread_;
};

/// Whether `outcome` is a failed wait: ZUError ("ResourceManager",
/// "waitResource", `description`) thrown from the strong owner's source.
::testing::AssertionResult waitFailed(const ConflictOutcome& outcome,
                                      const std::string& description);

}  // namespace zutest
