#include <zuresource/zuownerweak.h>

namespace ZU {

ZUOwnerWeak::ZUOwnerWeak(const std::string& name, const std::string& moduleName) {
  timeout = 0;
  ownerType = "eWeak";
  this->moduleName = moduleName;
  this->name = name;
  conflictMutex = ZUMutexRW::createZUMutexRW();
  ownerMutex = ZUMutex::createZUMutex();
}

ZUOwnerWeak::~ZUOwnerWeak() { ZUCriticalSectionWrite waitForConflicts(conflictMutex); }

bool ZUOwnerWeak::conflict(const std::string& /*resourceName*/,
                           boost::shared_ptr<ZUOwner> /*requester*/, int /*timeoutSeconds*/) {
  return false;
}

}  // namespace ZU
