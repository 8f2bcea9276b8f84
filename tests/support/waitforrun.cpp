#include "support/waitforrun.h"

#include <cstdio>
#include <cstdlib>

#include "support/stopwatch.h"

namespace zutest {

WaitForRun::WaitForRun(boost::shared_ptr<ZU::ZUResource> resource,
                       boost::shared_ptr<ZU::ZUOwner> owner, int timeout,
                       std::vector<std::string> noWaitList)
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

WaitForRun::~WaitForRun() { wait(10000); }

WaitForOutcome WaitForRun::wait(int ms) {
  if (thread_.joinFor(ms)) return state_->outcome;
  std::fprintf(stderr, "a waitFor() call did not end within %d ms\n", ms);
  std::abort();
}

::testing::AssertionResult waitFailedWith(const WaitForOutcome& outcome,
                                          const std::string& description) {
  if (!outcome.error)
    return ::testing::AssertionFailure() << "the wait threw no ZUError";
  const ZU::ZUError& e = *outcome.error;
  if (e.getModule() != "ResourceManager" || e.getMethod() != "waitResource" ||
      e.getDescription() != description)
    return ::testing::AssertionFailure() << "unexpected error: " << e.toString();
  return ::testing::AssertionSuccess();
}

::testing::AssertionResult waitReturned(const WaitForOutcome& outcome,
                                        const std::vector<std::string>& expected) {
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
