#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <gtest/gtest.h>

#include <zuhost/zuerror.h>
#include <zuresource/zuresource.h>

#include "support/guardedthread.h"

namespace zutest {

/// How one waitFor() call ended.
struct WaitForOutcome {
  std::vector<std::string> result;   // what it returned (empty when it threw)
  std::optional<ZU::ZUError> error;  // the ZUError it threw, if any
  bool otherException = false;       // it threw something else
  long elapsedMs = 0;                // from the start of the run to its end
};

/// Runs `resource->waitFor(owner, "", timeout, noWaitList)` in a thread of its
/// own, the way a behaviour's thread does, and records how and when it ended.
/// The run keeps its own handles on the resource and the owner until it ends,
/// so a test may drop its handles while the wait runs.
///
/// Thread safety: owned by one test thread; the outcome is written by the
/// run's thread before it marks the run finished (atomic).
class WaitForRun {
 public:
  WaitForRun(boost::shared_ptr<ZU::ZUResource> resource, boost::shared_ptr<ZU::ZUOwner> owner,
             int timeout, std::vector<std::string> noWaitList = {});
  /// Waits for the end as wait(10000) does.
  ~WaitForRun();
  WaitForRun(const WaitForRun&) = delete;
  WaitForRun& operator=(const WaitForRun&) = delete;

  /// Whether the call is still running.
  bool running() const { return !state_->finished; }
  /// Waits for the end and returns the outcome, the thread joined (so the
  /// run's handles are gone). A call still running after `ms` aborts the test
  /// program: a hung wait must fail, not stall the suite.
  WaitForOutcome wait(int ms = 5000);

 private:
  struct State {
    WaitForOutcome outcome;  // written by the run before `finished`
    std::atomic<bool> finished{false};
  };
  std::shared_ptr<State> state_;
  GuardedThread thread_;
};

/// Whether `outcome` is a wait that failed with ZUError ("ResourceManager",
/// "waitResource", `description`).
::testing::AssertionResult waitFailedWith(const WaitForOutcome& outcome,
                                          const std::string& description);
/// Whether `outcome` is a wait that returned `expected`.
::testing::AssertionResult waitReturned(const WaitForOutcome& outcome,
                                        const std::vector<std::string>& expected = {});

}  // namespace zutest
