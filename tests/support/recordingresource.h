#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <zuhost/zuerror.h>

#include <zuresource/zuresource.h>

namespace zutest {

/// Calls made on several resources, as "<resource>.<operation>", in order.
/// Thread safe.
class CallLog {
 public:
  void add(const std::string& entry) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(entry);
  }
  std::vector<std::string> entries() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> entries_;  // guarded by mutex_
};

/// Stands in front of a plain resource of the same name: records waitFor,
/// switchOwner, release and isResourceFree, then lets the inner resource
/// answer (so its calls to itself are not recorded). Its waitFor can run an
/// action first, or fail. Thread safe; set the action or failure before sharing.
class RecordingResource : public ZU::ZUResource {
 public:
  RecordingResource(const std::string& name, boost::shared_ptr<CallLog> log)
      : ZUResource(name, nullptr),
        inner_(boost::make_shared<ZUResource>(name, nullptr)),
        log_(std::move(log)) {}

  /// waitFor runs `action` after recording the call, before the inner wait.
  void onWaitFor(std::function<void()> action) { action_ = std::move(action); }
  /// waitFor throws ZUError ("ResourceManager", "waitResource", `description`)
  /// after recording the call; lastError() is the address of the thrown object.
  void failWaitFor(const std::string& description) { failure_ = description; }
  const ZU::ZUError* lastError() const { return lastError_; }
  const boost::shared_ptr<ZU::ZUResource>& inner() const { return inner_; }

  std::vector<std::string> waitFor(boost::shared_ptr<ZU::ZUOwner> owner, const std::string& label,
                                   int timeout, const std::vector<std::string>& noWait) override {
    record("waitFor");
    if (action_) action_();
    if (failure_.empty()) return inner_->waitFor(owner, label, timeout, noWait);
    try {
      throw ZU::ZUError("ResourceManager", "waitResource", failure_, "tests/support", 0);
    } catch (const ZU::ZUError& error) {
      lastError_ = &error;  // the very object that travels on
      throw;
    }
  }
  void switchOwner(boost::shared_ptr<ZU::ZUOwner> owner, const std::string& label,
                   int timeout) override {
    record("switchOwner");
    inner_->switchOwner(owner, label, timeout);
  }
  void release(boost::shared_ptr<ZU::ZUOwner> owner) override {
    record("release");
    inner_->release(owner);
  }
  bool isResourceFree() override {
    record("isResourceFree");
    return inner_->isResourceFree();
  }
  bool isInGroup(const std::string& name) override { return inner_->isInGroup(name); }
  bool isResourceOwned(const std::string& m) override { return inner_->isResourceOwned(m); }
  std::string httpGet(int depth) override { return inner_->httpGet(depth); }
  ZU::ZUValue ownersGet() override { return inner_->ownersGet(); }

 private:
  void record(const char* operation) { log_->add(name + "." + operation); }

  const boost::shared_ptr<ZU::ZUResource> inner_;  // immutable
  const boost::shared_ptr<CallLog> log_;           // immutable
  std::function<void()> action_;                   // set before sharing
  std::string failure_;                            // set before sharing; empty: none
  std::atomic<const ZU::ZUError*> lastError_{nullptr};
};

inline boost::shared_ptr<RecordingResource> makeRecording(const std::string& name,
                                                          boost::shared_ptr<CallLog> log) {
  return boost::make_shared<RecordingResource>(name, std::move(log));
}

}  // namespace zutest
