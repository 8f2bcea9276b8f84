#pragma once

#include <cstdio>
#include <cstdlib>
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

/// How one conflict() call ended (any other exception ends the test program).
struct ConflictOutcome {
  bool result = false;               // what it returned (false when it threw)
  std::optional<ZU::ZUError> error;  // the ZUError it threw, if any
  long elapsedMs = 0;                // from the start of the run to its end
};

/// Runs `holder.conflict(resource, requester, timeout)` in a thread of its own,
/// as a resource does for a waiting requester. It keeps no handle on the
/// holder, so a test can drop the holder's last handle while it waits.
/// Thread safety: used by one test thread; the run writes the outcome before
/// it ends.
class ConflictRun {
 public:
  ConflictRun(ZU::ZUOwner& holder, const std::string& resource,
              boost::shared_ptr<ZU::ZUOwner> requester, int timeout)
      : outcome_(std::make_shared<ConflictOutcome>()),
        thread_([&holder, resource, requester, timeout, outcome = outcome_] {
          Stopwatch watch;
          try {
            outcome->result = holder.conflict(resource, requester, timeout);
          } catch (const ZU::ZUError& error) {
            outcome->error = error;
          }
          outcome->elapsedMs = watch.elapsedMs();
        }) {}
  ~ConflictRun() { wait(10000); }

  /// Waits for the end and returns the outcome. A call still running after
  /// `ms` aborts the test program: a hung wait must fail, not stall the suite.
  ConflictOutcome wait(int ms = 5000) {
    if (thread_.joinFor(ms)) return *outcome_;
    std::fprintf(stderr, "a conflict() wait did not end within %d ms\n", ms);
    std::abort();
  }

 private:
  std::shared_ptr<ConflictOutcome> outcome_;  // written by the run, then read here
  GuardedThread thread_;
};

/// Whether `outcome` is a failed wait: ZUError ("ResourceManager",
/// "waitResource", `description`) thrown from the strong owner's source.
inline ::testing::AssertionResult waitFailed(const ConflictOutcome& outcome,
                                             const std::string& description) {
  if (!outcome.error) return ::testing::AssertionFailure() << "the wait threw no ZUError";
  const ZU::ZUError& e = *outcome.error;
  if (e.getModule() == "ResourceManager" && e.getMethod() == "waitResource" &&
      e.getDescription() == description &&
      e.getSourceFile() == "behavior/lib/zuresource/zuresource/zuownerstrong" && e.getLine() != 0)
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "unexpected error: " << e.toString();
}

}  // namespace zutest
