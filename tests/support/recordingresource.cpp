#include "support/recordingresource.h"

#include <boost/make_shared.hpp>

namespace zutest {

void CallLog::add(const std::string& entry) {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.push_back(entry);
}

std::vector<std::string> CallLog::entries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_;
}

RecordingResource::RecordingResource(const std::string& name, boost::shared_ptr<CallLog> log)
    : RecordingResource(boost::make_shared<ZU::ZUResource>(name, nullptr), log) {}

RecordingResource::RecordingResource(boost::shared_ptr<ZU::ZUResource> inner,
                                     boost::shared_ptr<CallLog> log)
    : ZUResource(inner->name, nullptr), inner_(inner), log_(log) {}

void RecordingResource::onWaitFor(std::function<void()> action) { action_ = std::move(action); }

void RecordingResource::failWaitFor(const std::string& description) { failure_ = description; }

std::vector<std::string> RecordingResource::waitFor(boost::shared_ptr<ZU::ZUOwner> owner,
                                                    const std::string& label, int timeout,
                                                    const std::vector<std::string>& noWaitList) {
  record("waitFor");
  if (action_) action_();
  if (!failure_.empty()) {
    try {
      throw ZU::ZUError("ResourceManager", "waitResource", failure_,
                        "tests/support/recordingresource", __LINE__);
    } catch (const ZU::ZUError& error) {
      lastError_ = &error;  // the very object that travels on
      throw;
    }
  }
  return inner_->waitFor(owner, label, timeout, noWaitList);
}

void RecordingResource::switchOwner(boost::shared_ptr<ZU::ZUOwner> owner,
                                    const std::string& label, int timeout) {
  record("switchOwner");
  inner_->switchOwner(owner, label, timeout);
}

void RecordingResource::release(boost::shared_ptr<ZU::ZUOwner> owner) {
  record("release");
  inner_->release(owner);
}

bool RecordingResource::isResourceFree() {
  record("isResourceFree");
  return inner_->isResourceFree();
}

bool RecordingResource::isInGroup(const std::string& resourceName) {
  return inner_->isInGroup(resourceName);
}

bool RecordingResource::isResourceOwned(const std::string& moduleName) {
  return inner_->isResourceOwned(moduleName);
}

std::string RecordingResource::httpGet(int depth) { return inner_->httpGet(depth); }

ZU::ZUValue RecordingResource::ownersGet() { return inner_->ownersGet(); }

boost::shared_ptr<RecordingResource> makeRecording(const std::string& name,
                                                   const boost::shared_ptr<CallLog>& log) {
  return boost::make_shared<RecordingResource>(name, log);
}

}  // namespace zutest
