#include <set>
#include <string>
#include <vector>

#include <zuresource/zuresourcelist.h>
#include <zuresource/zuresourcestate.h>
#include <zuresource/zustalewaitchecker.h>
#include <zuresource/zuvalues.h>

namespace ZU {

namespace {

// Resource name -> names of the owners that hold it now.
using Holders = std::map<std::string, std::set<std::string> >;

// Adds the current holders of a plain or state resource.
void collectLeafHolders(ZUResource& resource, Holders& holders) {
  std::set<std::string>& names = holders[resource.name];
  if (ZUResourceState* state = dynamic_cast<ZUResourceState*>(&resource)) {
    if (!state->state) names.insert(state->stateOwner->name);
    ZUCriticalSection lock(state->holdersMutex);
    for (const boost::shared_ptr<ZUOwner>& holder : state->holders) names.insert(holder->name);
    return;
  }
  ZUCriticalSectionRead lock(resource.currentOwnerMutex);
  names.insert(resource.currentOwner.load()->name);
}

// The holders of every plain and state resource in the tree under `root`.
// Walks with a list of its own, not by recursion: a tree of any depth fits.
void collectHolders(const boost::shared_ptr<ZUResource>& root, Holders& holders) {
  std::vector<boost::shared_ptr<ZUResource> > todo(1, root);
  while (!todo.empty()) {
    boost::shared_ptr<ZUResource> resource = std::move(todo.back());
    todo.pop_back();
    if (ZUResourceList* group = dynamic_cast<ZUResourceList*>(resource.get())) {
      const std::vector<boost::shared_ptr<ZUResource> > members = group->getResourceList();
      todo.insert(todo.end(), members.rbegin(), members.rend());
    } else {
      collectLeafHolders(*resource, holders);
    }
  }
}

}  // namespace

const int ZUStaleWaitChecker::kStaleAfterMs;

std::string ZUStaleWait::toString() const {
  return "stale wait: " + wait.waiter + " waits on " + wait.holder + " for " + wait.resource +
         ", which it has not held for " + std::to_string(ageMs) + " ms";
}

ZUValue ZUStaleWait::toValue() const {
  ZUValue value = wait.toValue();
  pushKeyValue(value, "staleMs", ZUValue(std::to_string(ageMs)));
  return value;
}

std::vector<ZUStaleWait> ZUStaleWaitChecker::check(
    const std::vector<boost::shared_ptr<ZUResource> >& roots) {
  const std::vector<ZUWait> waits = ZUWaitRegistry::snapshot();
  Holders holders;
  for (const boost::shared_ptr<ZUResource>& root : roots)
    if (root) collectHolders(root, holders);
  const std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now();

  std::vector<ZUStaleWait> stale;
  ZUMutexLock lock(mutex_);
  std::map<std::uint64_t, Seen> stillSeen;
  for (const ZUWait& wait : waits) {
    Holders::const_iterator current = holders.find(wait.resource);
    if (current == holders.end() || current->second.count(wait.holder)) continue;

    std::map<std::uint64_t, Seen>::iterator earlier = seen_.find(wait.id);
    Seen seen = earlier == seen_.end() ? Seen{now, false} : earlier->second;
    const long ageMs = static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now - seen.notHoldingSince).count());
    if (ageMs > kStaleAfterMs) {
      stale.push_back(ZUStaleWait{wait, ageMs, !seen.reported});
      seen.reported = true;
    }
    stillSeen.emplace(wait.id, seen);
  }
  seen_.swap(stillSeen);
  return stale;
}

}  // namespace ZU
