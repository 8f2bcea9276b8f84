#pragma once

#include <functional>
#include <utility>

namespace zutest {

/// Runs an action when it goes out of scope, also when an assertion leaves the
/// test early (lets a blocked module go before teardown). Not shared.
class OnExit {
 public:
  explicit OnExit(std::function<void()> action) : action_(std::move(action)) {}
  ~OnExit() { action_(); }
  OnExit(const OnExit&) = delete;
  OnExit& operator=(const OnExit&) = delete;

 private:
  std::function<void()> action_;
};

}  // namespace zutest
