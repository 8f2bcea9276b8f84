#pragma once

#include <string>

#include <boost/shared_ptr.hpp>

#include <zuresource/zuowner.h>

namespace ZU {

/// The owner that never contests: every resource's placeholder ("emptyOwner").
///
/// Thread safety: thread safe; conflict() touches no state, and the release
/// flag and waiters never change. Adds no fields.
class ZUOwnerWeak final : public ZUOwner {
 public:
  /// Sets, in order: timeout 0, ownerType "eWeak", moduleName, name,
  /// conflictMutex, ownerMutex. No waitersMutex, no hierarchy handle.
  ZUOwnerWeak(const std::string& name, const std::string& moduleName);
  /// Takes conflictMutex exclusively and lets it go, then the fields go.
  /// Takes: conflictMutex (write).
  ~ZUOwnerWeak() ZU_EXCLUDES(conflictMutex);

  /// Returns false at once, for any arguments (an empty requester included).
  /// No lock, no waiter, no notification, never throws.
  bool conflict(const std::string& resourceName, boost::shared_ptr<ZUOwner> requester,
                int timeoutSeconds) override;
};

}  // namespace ZU
