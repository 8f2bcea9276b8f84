#include "support/conflictrun.h"

#include <cstdio>
#include <cstdlib>

namespace zutest {

ConflictRun::ConflictRun(ZU::ZUOwner& holder, const std::string& resource,
                         boost::shared_ptr<ZU::ZUOwner> requester, int timeout)
    : outcome_(std::make_shared<ConflictOutcome>()),
      thread_([&holder, resource, requester, timeout, outcome = outcome_] {
        Stopwatch watch;
        try {
          outcome->result = holder.conflict(resource, requester, timeout);
        } catch (const ZU::ZUError& error) {
          outcome->error = error;
        } catch (...) {
          outcome->otherException = true;
        }
        outcome->elapsedMs = watch.elapsedMs();
      }) {}

ConflictRun::~ConflictRun() { wait(10000); }

ConflictOutcome ConflictRun::wait(int ms) {
  if (thread_.joinFor(ms)) return *outcome_;
  std::fprintf(stderr, "a conflict() wait did not end within %d ms\n", ms);
  std::abort();
}

::testing::AssertionResult waitFailed(const ConflictOutcome& outcome,
                                      const std::string& description) {
  if (!outcome.error)
    return ::testing::AssertionFailure()
           << "the wait threw no ZUError (it returned " << outcome.result << ")";
  const ZU::ZUError& e = *outcome.error;
  if (e.getModule() != "ResourceManager" || e.getMethod() != "waitResource" ||
      e.getDescription() != description ||
      e.getSourceFile() != "behavior/lib/zuresource/zuresource/zuownerstrong" ||
      e.getLine() == 0)
    return ::testing::AssertionFailure() << "unexpected error: " << e.toString();
  return ::testing::AssertionSuccess();
}

}  // namespace zutest
