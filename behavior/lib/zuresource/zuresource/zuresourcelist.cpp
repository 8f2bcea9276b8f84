#include <memory>
#include <typeinfo>
#include <utility>
#include <vector>

#include <zuresource/zucontract.h>
#include <zuresource/zueventsite.h>
#include <zuresource/zuresourcelist.h>

namespace ZU {

namespace {
const char* const kFile = "behavior/lib/zuresource/zuresource/zuresourcelist";

// Serialises additions to all groups, so that two additions cannot close a
// cycle between them that neither saw alone.
ZUMutex& additionMutex() {
  static ZUMutex m;
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
  ZUMutexLock additions(additionMutex());
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
                contract::kGroupDeleteResourceErrorLine);
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
  // The whole tree is written into one text, depth first, with a list of the
  // open groups instead of recursion: a text built level by level would be
  // copied once more at every level of nesting. Each open group's
  // resourceListMutex is held (read) until its last member is written, as a
  // nested call would hold it, so that no member is let go during the walk.
  struct Open {
    ZUResourceList* group;
    std::unique_ptr<ZUCriticalSectionRead> lock;
    std::size_t next;
    int depth;
  };
  std::vector<Open> open;
  std::string text = ZUResource::httpGet(depth);
  open.push_back(Open{this, std::make_unique<ZUCriticalSectionRead>(resourceListMutex), 0, depth});
  while (!open.empty()) {
    Open& top = open.back();
    const std::vector<boost::shared_ptr<ZUResource> >& members = membersHeldOpen(*top.group);
    if (top.next == members.size()) {
      open.pop_back();
      continue;
    }
    ZUResource* member = members[top.next++].get();
    const int memberDepth = top.depth + 1;
    if (typeid(*member) != typeid(ZUResourceList)) {
      text += member->httpGet(memberDepth);
      continue;
    }
    ZUResourceList* group = static_cast<ZUResourceList*>(member);
    text += group->ZUResource::httpGet(memberDepth);
    open.push_back(Open{group, std::make_unique<ZUCriticalSectionRead>(group->resourceListMutex), 0,
                        memberDepth});
  }
  return text;
}

const std::vector<boost::shared_ptr<ZUResource> >& ZUResourceList::membersHeldOpen(
    const ZUResourceList& group) ZU_NO_THREAD_SAFETY_ANALYSIS {
  return group.resourceList;
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
      releaseMembers(owner);
      if (ZUObservers::active()) eventsite::givenBack(givenBack, name, *owner, "abort requested");
      return std::vector<std::string>();
    }
    try {
      std::vector<std::string> names = member->waitFor(owner, label, timeout, noWaitList);
      notObtained.insert(notObtained.end(), names.begin(), names.end());
    } catch (const ZUError& e) {
      releaseMembers(owner);  // give back every member, then the very same error
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
      releaseMembers(owner);
      return;
    }
    member->switchOwner(owner, label, timeout);
  }
}

void ZUResourceList::release(boost::shared_ptr<ZUOwner> owner) {
  ZUCriticalSectionRead lock(resourceListMutex);
  releaseMembers(owner);
}

void ZUResourceList::releaseMembers(const boost::shared_ptr<ZUOwner>& owner) {
  for (const boost::shared_ptr<ZUResource>& member : resourceList) member->release(owner);
}

}  // namespace ZU
