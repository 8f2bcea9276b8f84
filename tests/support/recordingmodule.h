#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <zuhost/zubroker.h>

namespace zutest {

/// A host module that records every "__onResource__" it receives and may act
/// on it (for instance release the wanted resource). Thread safe.
class RecordingModule {
 public:
  /// Registers a module named `name` on `broker`.
  RecordingModule(const boost::shared_ptr<ZU::ZUBroker>& broker, const std::string& name);
  /// Unregisters the module and stops it (a running call is waited for, queued
  /// ones are dropped), so that no call reaches a destroyed recorder.
  ~RecordingModule();
  RecordingModule(const RecordingModule&) = delete;
  RecordingModule& operator=(const RecordingModule&) = delete;

  /// Runs `action(resourceName)` in the module's task after recording a call.
  void onResource(std::function<void(const std::string&)> action);
  /// The resource names received so far, in order.
  std::vector<std::string> calls() const;
  /// Waits until every started task has run.
  void waitIdle() { module_->waitIdle(); }
  const boost::shared_ptr<ZU::ZUModule>& module() const { return module_; }

 private:
  boost::weak_ptr<ZU::ZUBroker> broker_;
  boost::shared_ptr<ZU::ZUModule> module_;
  mutable std::mutex mutex_;
  std::vector<std::string> calls_;                  // guarded by mutex_
  std::function<void(const std::string&)> action_;  // guarded by mutex_
};

}  // namespace zutest
