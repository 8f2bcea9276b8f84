#include <iostream>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <zuhost/zulog.h>
#include <zuhost/zuos.h>

#include <zuresource/zucontract.h>
#include <zuresource/zueventsite.h>
#include <zuresource/zuownerstrong.h>
#include <zuresource/zuwaitregistry.h>

namespace ZU {

namespace {
const char* const kFile = "behavior/lib/zuresource/zuresource/zuownerstrong";
}  // namespace

ZUOwnerStrong::ZUOwnerStrong(const std::string& name, const std::string& moduleName,
                             boost::shared_ptr<ZUHierarchyOwner> hierarchyOwner) {
  timeout = 0;
  ownerType = "eStrong";
  this->name = name;
  this->moduleName = moduleName;
  resourceFreed = false;
  conflictMutex = ZUMutexRW::createZUMutexRW();
  waitersMutex = ZUMutexRW::createZUMutexRW();
  ownerMutex = ZUMutex::createZUMutex();
  this->hierarchyOwner = hierarchyOwner;
}

ZUOwnerStrong::~ZUOwnerStrong() {
  resourceFreed = true;
  if (ZUObservers::active() && waitersMutex && copyWaiters().size() != 0)
    eventsite::stopped(std::string(), nullptr, *this, ZUEvent::Cause::Destruction);
  ZUCriticalSectionWrite waitForConflicts(conflictMutex);
}

void ZUOwnerStrong::freeResource() { resourceFreed = true; }

bool ZUOwnerStrong::isParent(boost::shared_ptr<ZUOwner> other) {
  if (!other) return false;
  const std::string& prefix = other->name;
  if (name.size() == prefix.size()) return false;
  return name.size() > prefix.size() && name.compare(0, prefix.size(), prefix) == 0;
}

void ZUOwnerStrong::addWaiter(boost::shared_ptr<ZUOwner> requester, int /*timeout*/) {
  if (!requester)
    throw ZUError("ZUOwnerStrong", "addWaiter", "empty requester owner handle", kFile, __LINE__);
  ZUCriticalSectionWrite lock(waitersMutex);
  waiters.arrayPush(ZUValue(requester->moduleName));
}

void ZUOwnerStrong::popWaiter() {
  ZUCriticalSectionWrite lock(waitersMutex);
  waiters.arrayPopFront();
}

bool ZUOwnerStrong::conflict(const std::string& resourceName, boost::shared_ptr<ZUOwner> requester,
                             int timeoutSeconds) {
  if (!requester)
    throw ZUError("ZUOwnerStrong", "conflict", "empty requester owner handle", kFile, __LINE__);
  ZUCriticalSectionRead running(conflictMutex);

  // Only temporary handles on this owner: a wait must not keep its holder
  // alive, so that dropping the holder's last handle elsewhere ends the wait
  // (the destructor sets the release flag, then waits for running conflicts).
  if (requester->isParent(getThis())) {
    requester->setParentOwner(getThis(), resourceName);
    return true;
  }

  addWaiter(requester, timeoutSeconds);
  resourceFreed = false;
  const bool stoppedBefore = requester->resourceFreed;
  ZUWaitRegistry::Record recorded(requester, *this, resourceName,
                                 timeoutSeconds);  // until any way out
  eventsite::WaitWatch watch(recorded.id(), *this);  // this wait's own checks, at each poll
  if (ZUObservers::active())
    eventsite::waitEvent(ZUEvent::Kind::Waiting, resourceName, *requester, *this, timeoutSeconds);
  const boost::posix_time::ptime start = boost::posix_time::microsec_clock::local_time();
  const boost::posix_time::ptime deadline = start + boost::posix_time::seconds(timeoutSeconds);
  this->timeout = 0;
  try {
    notifyConflictOwner(resourceName, requester, timeoutSeconds);
  } catch (...) {
    popWaiter();  // the lookup failed before the first poll: settle our entry
    throw;
  }

  for (;;) {
    if (resourceFreed) {
      popWaiter();
      return false;
    }
    ko::os::msleep(kPollPeriodMs);
    this->timeout += kPollPeriodMs;
    const boost::posix_time::ptime now = boost::posix_time::microsec_clock::local_time();
    if (requester->resourceFreed) {
      popWaiter();
      if (ZUObservers::active())
        eventsite::stopped(
            resourceName, requester.get(), *this,
            stoppedBefore ? ZUEvent::Cause::OwnRelease : ZUEvent::Cause::ManagerStop);
      throw ZUError(contract::kWaitErrorModule, contract::kWaitErrorMethod,
                    contract::kStopWhileWaiting, kFile, __LINE__);
    }
    if (timeoutSeconds >= 0 && deadline < now) {
      popWaiter();
      if (ZUObservers::active())
        eventsite::waitEvent(ZUEvent::Kind::TimedOut, resourceName, *requester, *this,
                             timeoutSeconds);
      throw ZUError(contract::kWaitErrorModule, contract::kWaitErrorMethod,
                    contract::waitTimedOut(resourceName), kFile, __LINE__);
    }
    watch.poll();
  }
}

void ZUOwnerStrong::notifyConflictOwner(const std::string& resourceName,
                                        boost::shared_ptr<ZUOwner> requester, int /*timeout*/) {
  boost::shared_ptr<ZUBroker> broker = parentBroker.lock();
  if (!broker) return;
  boost::shared_ptr<ZUProxy> proxy = broker->getProxy(moduleName, 0);
  try {
    proxy->pCall<std::string>("__onResource__", resourceName);
    if (ZUObservers::active())
      eventsite::emit(ZUEvent::Kind::Notified, resourceName, requester.get(), this);
  } catch (const ZUError& e) {
    std::cout << e.toString() << std::endl;
  }
}

void ZUOwnerStrong::notifyConflictVantor(boost::shared_ptr<ZUOwner> /*requester*/,
                                         int /*timeout*/) {
  ko::log::LogStream(3, contract::kLogCategory, "", "notifyConflictVantor",
                     0)("unimplemented notifyConflictVantor\n");
}

void ZUOwnerStrong::notifyEndConflictVantor(boost::shared_ptr<ZUOwner> /*requester*/,
                                            int /*timeout*/) {
  ko::log::LogStream(3, contract::kLogCategory, "", "notifyEndConflictVantor",
                     0)("unimplemented notifyEndConflictVantor");
}

}  // namespace ZU
