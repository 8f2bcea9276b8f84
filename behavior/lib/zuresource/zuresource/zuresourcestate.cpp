#include <algorithm>

#include <boost/make_shared.hpp>

#include <zuresource/zueventsite.h>
#include <zuresource/zuresourcestate.h>

namespace ZU {

ZUResourceState::ZUResourceState(const std::string& name, boost::shared_ptr<ZUResource> parent)
    : state(false) {
  holdersMutex = ZUMutex::createZUMutex();
  stateMutex = ZUMutex::createZUMutex();
  init(name, parent);
  stateOwner = boost::make_shared<ZUOwnerStrong>(name, name, boost::shared_ptr<ZUHierarchyOwner>());
}

ZUResourceState::~ZUResourceState() = default;

bool ZUResourceState::isResourceFree() { return state; }

std::vector<std::string> ZUResourceState::waitFor(boost::shared_ptr<ZUOwner> owner,
                                                  const std::string& label, int timeout,
                                                  const std::vector<std::string>& noWaitList) {
  requireOwner(owner, "ZUResourceState", "waitFor");
  if (ZUObservers::active()) eventsite::requested(name, *owner, label, timeout, noWaitList);

  if (!state) {
    bool waitForActivation = true;
    if (!noWaitList.empty()) {
      if (std::find(noWaitList.begin(), noWaitList.end(), name) != noWaitList.end()) {
        if (ZUObservers::active())
          eventsite::emit(ZUEvent::Kind::NotObtained, name, owner.get(), stateOwner.get());
        return std::vector<std::string>(1, name);
      }
      waitForActivation = !state;  // activated meanwhile: no need to wait
    }
    if (waitForActivation) {
      {
        ZUCriticalSectionWrite lock(currentOwnerMutex);
        currentOwner.store(stateOwner);
      }
      eventsite::WaitingOn waitingOn(this);
      stateOwner->conflict(name, owner, timeout);
    }
  }

  ZUPendingEvent granted;  // delivered once the locks below are let go
  {
    ZUCriticalSection ownerLock(owner->ownerMutex);
    ZUCriticalSection holdersLock(holdersMutex);
    holders.push_back(owner);
    if (ZUObservers::active())
      eventsite::granted(granted, name, *owner, ZUEvent::Grant::StateActivated, nullptr);
  }
  return std::vector<std::string>();
}

void ZUResourceState::release(boost::shared_ptr<ZUOwner> owner) {
  ZUPendingEvent released;  // delivered once the lock below is let go
  ZUCriticalSection lock(holdersMutex);
  if (!owner) return;
  owner->freeResource();
  const std::string& ownerName = owner->name;
  const auto kept = std::remove_if(
      holders.begin(), holders.end(),
      [&ownerName](const boost::shared_ptr<ZUOwner>& holder) { return holder->name == ownerName; });
  if (kept != holders.end() && ZUObservers::active())
    eventsite::keep(released, ZUEvent::Kind::Released, name, owner.get());
  holders.erase(kept, holders.end());
}

void ZUResourceState::setState(bool activated) {
  // The holders' waits run under the locks below: their events are delivered
  // once the locks are let go.
  ZUEventDeferral deferral;
  if (ZUObservers::active())
    eventsite::emit(activated ? ZUEvent::Kind::StateActivated : ZUEvent::Kind::StateDeactivated,
                    name, nullptr);
  ZUCriticalSection lock(stateMutex);
  try {
    if (activated) {
      state = true;
      stateOwner->freeResource();
    } else {
      state = false;
      releaseState();
    }
  } catch (const ZUError&) {
    // A holder that did not let go in time: it has been told, and so have the
    // holders before it. Deactivation stands.
  }
}

void ZUResourceState::releaseState() {
  ZUEventDeferral deferral;  // as in setState
  ZUCriticalSection lock(holdersMutex);
  boost::shared_ptr<ZUOwner> wanting =
      boost::make_shared<ZUOwnerStrong>(name, name, boost::shared_ptr<ZUHierarchyOwner>());
  state = false;
  for (const boost::shared_ptr<ZUOwner>& holder : holders) holder->conflict(name, wanting, 0);
}

std::string ZUResourceState::httpGet(int depth) {
  std::string text = indentedName(depth, name);
  if (state) text += " (Activated) ";
  {
    ZUCriticalSection lock(holdersMutex);
    for (const boost::shared_ptr<ZUOwner>& holder : holders) text += ownerSegment(holder);
  }
  text += " Waiter: ";
  text += stateOwner->copyWaiters().serializeToText();
  text += "<br />";
  return text;
}

ZUValue ZUResourceState::ownersGet() { return holderValue(name, copyOwner()); }

}  // namespace ZU
