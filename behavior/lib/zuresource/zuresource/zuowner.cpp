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
  if (!waitersMutex) return unchangingWaiters();
  ZUCriticalSectionRead lock(waitersMutex);
  return waiters;
}

// An owner with no waitersMutex (a weak owner) never changes `waiters`, so it
// is read without a lock; the analysis knows only the guard.
const ZUValue& ZUOwner::unchangingWaiters() const ZU_NO_THREAD_SAFETY_ANALYSIS { return waiters; }

}  // namespace ZU
