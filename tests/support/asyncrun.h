#pragma once

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <gtest/gtest.h>

#include <zuhost/zuerror.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuresource.h>

#include "support/threads.h"

namespace zutest {

/// How one call run by an AsyncRun ended.
template <typename Result>
struct Outcome {
  Result result{};                   // what it returned (default when it threw)
  std::optional<ZU::ZUError> error;  // the ZUError it threw, if any (anything else ends the test)
  long elapsedMs = 0;                // from the start of the run to its end
};
using WaitForOutcome = Outcome<std::vector<std::string>>;
using ConflictOutcome = Outcome<bool>;

/// Runs one blocking call in a thread of its own, as a behaviour's thread
/// does. Thread safety: owned by one test thread; the run writes the outcome
/// before it sets `finished` (atomic).
template <typename Result>
class AsyncRun {
 public:
  explicit AsyncRun(std::function<Result()> call)
      : state_(std::make_shared<State>()), thread_([call = std::move(call), state = state_] {
          Stopwatch watch;
          try {
            state->outcome.result = call();
          } catch (const ZU::ZUError& error) {
            state->outcome.error = error;
          }
          state->outcome.elapsedMs = watch.elapsedMs();
          state->finished = true;
        }) {}
  ~AsyncRun() { wait(10000); }

  bool running() const { return !state_->finished; }
  /// The outcome, the thread joined. A call still running after `ms` aborts
  /// the program: a hung wait must fail the suite, not stall it.
  Outcome<Result> wait(int ms = 5000) {
    if (thread_.joinFor(ms)) return state_->outcome;
    std::fprintf(stderr, "a waiting call did not end within %d ms\n", ms);
    std::abort();
  }

 private:
  struct State {
    Outcome<Result> outcome;  // written by the run before `finished`
    std::atomic<bool> finished{false};
  };
  std::shared_ptr<State> state_;
  GuardedThread thread_;
};

/// `resource->waitFor(owner, "", timeout, noWaitList)`; the run keeps its own
/// handles on the resource and the owner until it ends.
struct WaitForRun : AsyncRun<std::vector<std::string>> {
  WaitForRun(boost::shared_ptr<ZU::ZUResource> resource, boost::shared_ptr<ZU::ZUOwner> owner,
             int timeout, std::vector<std::string> noWaitList = {})
      : AsyncRun([resource, owner, timeout, noWaitList] {
          return resource->waitFor(owner, "", timeout, noWaitList);
        }) {}
};

/// `holder.conflict(resource, requester, timeout)`, as a resource calls it
/// for a waiting requester. It keeps no handle on the holder, so a test can
/// drop the holder's last handle while it waits.
struct ConflictRun : AsyncRun<bool> {
  ConflictRun(ZU::ZUOwner& holder, const std::string& resource,
              boost::shared_ptr<ZU::ZUOwner> requester, int timeout)
      : AsyncRun([&holder, resource, requester, timeout] {
          return holder.conflict(resource, requester, timeout);
        }) {}
};

/// Whether the call failed with the error that ends a wait: ZUError (wait
/// module, wait method, `description`).
inline ::testing::AssertionResult waitFailed(const std::optional<ZU::ZUError>& error,
                                             const std::string& description) {
  if (!error) return ::testing::AssertionFailure() << "no ZUError";
  if (error->getModule() != ZU::contract::kWaitErrorModule ||
      error->getMethod() != ZU::contract::kWaitErrorMethod ||
      error->getDescription() != description)
    return ::testing::AssertionFailure() << "unexpected error: " << error->toString();
  return ::testing::AssertionSuccess();
}
template <typename Result>
::testing::AssertionResult waitFailed(const Outcome<Result>& outcome,
                                      const std::string& description) {
  return waitFailed(outcome.error, description);
}

/// Whether the run returned `expected` (waitFor: nothing not obtained; conflict:
/// false, the holder let go) and threw nothing.
template <typename Result>
::testing::AssertionResult waitReturned(const Outcome<Result>& outcome,
                                        const Result& expected = Result()) {
  if (outcome.error)
    return ::testing::AssertionFailure() << "the wait failed: " << outcome.error->toString();
  if (outcome.result != expected) return ::testing::AssertionFailure() << "another result";
  return ::testing::AssertionSuccess();
}

}  // namespace zutest
