#include <mutex>
#include <utility>

#include <zuresource/zueventsite.h>
#include <zuresource/zuresourcelist.h>

namespace ZU {

namespace {
const char* const kFile = "behavior/lib/zuresource/zuresource/zuresourcelist";

// Serialises additions to all groups, so that two additions cannot close a
// cycle between them that neither saw alone.
std::mutex& additionMutex() {
  static std::mutex m;
  return m;
}
}  // namespace

ZUResourceList::ZUResourceList(const std::string& name, boost::shared_ptr<ZUResource> parent)
    : abortRequested(false) {
  init(name, parent);
  resourceListMutex = ZUMutexRW::createZUMutexRW();
}

ZUResourceList::~ZUResourceList() = default;

void ZUResourceList::setAbortRequested(bool requested) { abortRequested = requested; }

std::vector<boost::shared_ptr<ZUResource> > ZUResourceList::getResourceList() {
  ZUCriticalSectionRead lock(resourceListMutex);
  return resourceList;
}

// --- Membership ------------------------------------------------------------------

bool ZUResourceList::reachableFrom(const boost::shared_ptr<ZUResource>& resource) {
  if (resource.get() == this) return true;
  ZUResourceList* group = dynamic_cast<ZUResourceList*>(resource.get());
  if (!group) return false;
  for (const boost::shared_ptr<ZUResource>& member : group->getResourceList())
    if (reachableFrom(member)) return true;
  return false;
}

void ZUResourceList::addResource(boost::shared_ptr<ZUResource> resource) {
  if (!resource)
    throw ZUError("ZUResourceList", "addResource", "empty resource handle", kFile, __LINE__);
  std::lock_guard<std::mutex> additions(additionMutex());
  if (resource.get() == this)
    throw ZUError("ZUResourceList", "addResource", "a group cannot be a member of itself: " + name,
                  kFile, __LINE__);
  if (reachableFrom(resource))
    throw ZUError(
        "ZUResourceList", "addResource",
        "adding " + resource->name + " to " + name + " would make a cycle: it contains " + name,
        kFile, __LINE__);
  ZUCriticalSectionWrite lock(resourceListMutex);
  resourceList.push_back(resource);
}

void ZUResourceList::deleteResource(const std::string& resourceName) {
  ZUCriticalSectionWrite lock(resourceListMutex);
  for (auto it = resourceList.begin(); it != resourceList.end(); ++it) {
    if ((*it)->name == resourceName) {
      resourceList.erase(it);
      return;
    }
  }
  throw ZUError("ZUResourceList", "deleteResource", "Resource not found " + resourceName, kFile,
                156);
}

bool ZUResourceList::isInGroup(const std::string& resourceName) {
  ZUCriticalSectionRead lock(resourceListMutex);
  if (name == resourceName) return true;
  for (const boost::shared_ptr<ZUResource>& member : resourceList)
    if (member->isInGroup(resourceName)) return true;
  return false;
}

bool ZUResourceList::isResourceOwned(const std::string& moduleName) {
  ZUCriticalSectionRead lock(resourceListMutex);
  for (const boost::shared_ptr<ZUResource>& member : resourceList)
    if (!member->isResourceOwned(moduleName)) return false;
  return true;
}

bool ZUResourceList::isResourceFree() {
  ZUCriticalSectionRead lock(resourceListMutex);
  for (const boost::shared_ptr<ZUResource>& member : resourceList)
    if (!member->isResourceFree()) return false;
  return true;
}

// --- Reports ---------------------------------------------------------------------

std::string ZUResourceList::httpGet(int depth) {
  ZUCriticalSectionRead lock(resourceListMutex);
  // The members' lines first, so that the text is allocated once at its full
  // size instead of growing (and being copied again) member by member.
  std::vector<std::string> memberLines;
  memberLines.reserve(resourceList.size());
  std::string text = ZUResource::httpGet(depth);
  std::size_t size = text.size();
  for (const boost::shared_ptr<ZUResource>& member : resourceList) {
    memberLines.push_back(member->httpGet(depth + 1));
    size += memberLines.back().size();
  }
  text.reserve(size);
  for (const std::string& line : memberLines) text += line;
  return text;
}

ZUValue ZUResourceList::ownersGet() {
  ZUCriticalSectionRead lock(resourceListMutex);
  ZUValue own = ZUResource::ownersGet();
  if (!own.isValid()) return own;
  // The values are moved into place: copying them would copy every nested
  // member value once more at each level of the tree.
  ZUValue result;
  result.arrayPush(std::move(own));
  ZUValue members;
  for (const boost::shared_ptr<ZUResource>& member : resourceList) {
    ZUValue value = member->ownersGet();
    if (value.isValid()) members.arrayPush(std::move(value));
  }
  if (members.isValid()) result.arrayPush(std::move(members));
  return result;
}

// --- Acquisition -----------------------------------------------------------------

std::vector<std::string> ZUResourceList::waitFor(boost::shared_ptr<ZUOwner> owner,
                                                 const std::string& label, int timeout,
                                                 const std::vector<std::string>& noWaitList) {
  requireOwner(owner, "ZUResourceList", "waitFor");
  if (ZUObservers::active()) eventsite::requested(name, *owner, label, timeout, noWaitList);
  ZUPendingEvent givenBack;  // delivered once the lock below is let go
  ZUCriticalSectionRead lock(resourceListMutex);
  std::vector<std::string> notObtained;
  for (const boost::shared_ptr<ZUResource>& member : resourceList) {
    if (abortRequested) {
      release(owner);  // takes the read side again, on this thread
      if (ZUObservers::active()) eventsite::givenBack(givenBack, name, *owner, "abort requested");
      return std::vector<std::string>();
    }
    try {
      std::vector<std::string> names = member->waitFor(owner, label, timeout, noWaitList);
      notObtained.insert(notObtained.end(), names.begin(), names.end());
    } catch (const ZUError& e) {
      release(owner);  // give back every member, then the very same error
      if (ZUObservers::active()) eventsite::givenBack(givenBack, name, *owner, e.what());
      throw;
    }
  }
  return notObtained;
}

void ZUResourceList::switchOwner(boost::shared_ptr<ZUOwner> owner, const std::string& label,
                                 int timeout) {
  requireOwner(owner, "ZUResourceList", "switchOwner");
  ZUCriticalSectionRead lock(resourceListMutex);
  for (const boost::shared_ptr<ZUResource>& member : resourceList) {
    if (abortRequested) {
      release(owner);
      return;
    }
    member->switchOwner(owner, label, timeout);
  }
}

void ZUResourceList::release(boost::shared_ptr<ZUOwner> owner) {
  ZUCriticalSectionRead lock(resourceListMutex);
  for (const boost::shared_ptr<ZUResource>& member : resourceList) member->release(owner);
}

}  // namespace ZU
