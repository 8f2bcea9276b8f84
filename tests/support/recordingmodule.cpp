#include "support/recordingmodule.h"

#include <boost/make_shared.hpp>

namespace zutest {

RecordingModule::RecordingModule(const boost::shared_ptr<ZU::ZUBroker>& broker,
                                 const std::string& name)
    : broker_(broker), module_(boost::make_shared<ZU::ZUModule>(name)) {
  module_->bindMethod<std::string>("__onResource__", [this](const std::string& resource) {
    std::function<void(const std::string&)> action;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      calls_.push_back(resource);
      action = action_;
    }
    if (action) action(resource);
  });
  broker->addModule(module_);
}

RecordingModule::~RecordingModule() {
  if (boost::shared_ptr<ZU::ZUBroker> broker = broker_.lock())
    if (broker->getModule(module_->getName()) == module_) broker->removeModule(module_->getName());
  module_.reset();  // the last handle, unless a test kept one: stops the task thread
}

void RecordingModule::onResource(std::function<void(const std::string&)> action) {
  std::lock_guard<std::mutex> lock(mutex_);
  action_ = std::move(action);
}

std::vector<std::string> RecordingModule::calls() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return calls_;
}

}  // namespace zutest
