#include <zuhost/zuos.h>

#include <zuresource/zuowner.h>

namespace ZU {

ZUOwner::ZUOwner() : resourceFreed(false), timeout(0) {}

ZUOwner::~ZUOwner() = default;

void ZUOwner::freeResource() {}

bool ZUOwner::isParent(boost::shared_ptr<ZUOwner> /*other*/) { return false; }

boost::shared_ptr<ZUOwner> ZUOwner::getThis() { return shared_from_this(); }

void ZUOwner::setParentBroker(boost::shared_ptr<ZUBroker> broker) { parentBroker = broker; }

std::string ZUOwner::getTimeout() { return DecToString(timeout.load() / 1000); }

boost::shared_ptr<ZUOwner> ZUOwner::getParentOwner(const std::string& resourceName) {
  auto it = parentOwners.find(resourceName);
  if (it == parentOwners.end()) return boost::shared_ptr<ZUOwner>();
  return it->second.lock();
}

void ZUOwner::setParentOwner(boost::shared_ptr<ZUOwner> parent, const std::string& resourceName) {
  parentOwners[resourceName] = parent;
}

ZUValue ZUOwner::copyWaiters() const {
  if (!waitersMutex) return waiters;
  ZUCriticalSectionRead lock(waitersMutex);
  return waiters;
}

}  // namespace ZU
