#pragma once

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <gtest/gtest.h>

#include <zuhost/zuerror.h>

#include <zuresource/zuresource.h>

#include "support/guardedthread.h"
#include "support/stopwatch.h"

namespace zutest {

/// How one waitFor() call ended.
struct WaitForOutcome {
  std::vector<std::string> result;   // what it returned (empty when it threw)
  std::optional<ZU::ZUError> error;  // the ZUError it threw, if any
  bool otherException = false;       // it threw something else
  long elapsedMs = 0;                // from the start of the run to its end
};

/// Runs `resource->waitFor(owner, "", timeout, noWaitList)` in a thread of its
/// own, as a behaviour's thread does; the run keeps its own handles on the
/// resource and the owner until it ends. Thread safety: owned by one test
/// thread; the run writes the outcome before it sets `finished` (atomic).
class WaitForRun {
 public:
  WaitForRun(boost::shared_ptr<ZU::ZUResource> resource, boost::shared_ptr<ZU::ZUOwner> owner,
             int timeout, std::vector<std::string> noWaitList = {})
      : state_(std::make_shared<State>()),
        thread_([resource, owner, timeout, noWaitList, state = state_] {
          Stopwatch watch;
          try {
            state->outcome.result = resource->waitFor(owner, "", timeout, noWaitList);
          } catch (const ZU::ZUError& error) {
            state->outcome.error = error;
          } catch (...) {
            state->outcome.otherException = true;
          }
          state->outcome.elapsedMs = watch.elapsedMs();
          state->finished = true;
        }) {}
  ~WaitForRun() { wait(10000); }

  bool running() const { return !state_->finished; }
  /// The outcome, the thread joined. A call still running after `ms` aborts
  /// the program: a hung wait must fail the suite, not stall it.
  WaitForOutcome wait(int ms = 5000) {
    if (thread_.joinFor(ms)) return state_->outcome;
    std::fprintf(stderr, "a waitFor() call did not end within %d ms\n", ms);
    std::abort();
  }

 private:
  struct State {
    WaitForOutcome outcome;  // written by the run before `finished`
    std::atomic<bool> finished{false};
  };
  std::shared_ptr<State> state_;
  GuardedThread thread_;
};

/// Whether `outcome` failed with ZUError ("ResourceManager", "waitResource",
/// `description`).
inline ::testing::AssertionResult waitFailedWith(const WaitForOutcome& outcome,
                                                 const std::string& description) {
  if (!outcome.error) return ::testing::AssertionFailure() << "the wait threw no ZUError";
  const ZU::ZUError& e = *outcome.error;
  if (e.getModule() != "ResourceManager" || e.getMethod() != "waitResource" ||
      e.getDescription() != description)
    return ::testing::AssertionFailure() << "unexpected error: " << e.toString();
  return ::testing::AssertionSuccess();
}

/// Whether `outcome` returned `expected`.
inline ::testing::AssertionResult waitReturned(const WaitForOutcome& outcome,
                                               const std::vector<std::string>& expected = {}) {
  if (outcome.error)
    return ::testing::AssertionFailure() << "the wait failed: " << outcome.error->toString();
  if (outcome.otherException)
    return ::testing::AssertionFailure() << "the wait threw something other than ZUError";
  if (outcome.result != expected)
    return ::testing::AssertionFailure() << "the wait returned " << outcome.result.size()
                                         << " names instead of " << expected.size();
  return ::testing::AssertionSuccess();
}

}  // namespace zutest
