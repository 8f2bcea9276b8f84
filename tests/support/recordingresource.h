#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zuresource/zuresource.h>

namespace zutest {

/// A log of calls shared by several resources, as "<resource>.<operation>"
/// in the order they were made. Thread safe.
class CallLog {
 public:
  void add(const std::string& entry);
  std::vector<std::string> entries() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> entries_;  // guarded by mutex_
};

/// A resource that stands in front of another one (a plain resource of the
/// same name by default): it records waitFor, switchOwner, release and
/// isResourceFree into a CallLog and then lets the inner resource answer, so
/// the inner resource's own calls to itself are not recorded. Its waitFor can
/// be told to run an action first, or to fail.
///
/// Thread safety: thread safe; set the action or the failure before the
/// resource is shared between threads.
class RecordingResource : public ZU::ZUResource {
 public:
  RecordingResource(const std::string& name, boost::shared_ptr<CallLog> log);
  RecordingResource(boost::shared_ptr<ZU::ZUResource> inner, boost::shared_ptr<CallLog> log);

  /// waitFor runs `action` after recording the call, before the inner wait.
  void onWaitFor(std::function<void()> action);
  /// waitFor throws ZUError ("ResourceManager", "waitResource", `description`)
  /// after recording the call; the thrown object is kept in lastError().
  void failWaitFor(const std::string& description);
  /// The exception object that the latest failing waitFor threw (nullptr when
  /// none did). Only its address may be used once the exception is gone.
  const ZU::ZUError* lastError() const { return lastError_; }
  const boost::shared_ptr<ZU::ZUResource>& inner() const { return inner_; }

  std::vector<std::string> waitFor(boost::shared_ptr<ZU::ZUOwner> owner,
                                   const std::string& label, int timeout,
                                   const std::vector<std::string>& noWaitList) override;
  void switchOwner(boost::shared_ptr<ZU::ZUOwner> owner, const std::string& label,
                   int timeout) override;
  void release(boost::shared_ptr<ZU::ZUOwner> owner) override;
  bool isResourceFree() override;
  bool isInGroup(const std::string& resourceName) override;
  bool isResourceOwned(const std::string& moduleName) override;
  std::string httpGet(int depth) override;
  ZU::ZUValue ownersGet() override;

 private:
  void record(const char* operation) { log_->add(name + "." + operation); }

  const boost::shared_ptr<ZU::ZUResource> inner_;  // immutable
  const boost::shared_ptr<CallLog> log_;           // immutable
  std::function<void()> action_;                   // set before sharing
  std::string failure_;                            // set before sharing; empty: none
  std::atomic<const ZU::ZUError*> lastError_{nullptr};
};

/// A shared handle on a new RecordingResource named `name` that logs to `log`.
boost::shared_ptr<RecordingResource> makeRecording(const std::string& name,
                                                   const boost::shared_ptr<CallLog>& log);

}  // namespace zutest
