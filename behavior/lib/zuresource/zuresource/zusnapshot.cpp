#include <algorithm>
#include <map>
#include <set>

#include <zuresource/zueventsite.h>
#include <zuresource/zuresourcelist.h>
#include <zuresource/zuresourcestate.h>
#include <zuresource/zusnapshot.h>

namespace ZU {

namespace {

// Walks the trees and gathers the resources and the owners that hold them.
class Walk {
 public:
  explicit Walk(ZUSnapshot& snapshot) : snapshot_(snapshot) {}

  void visit(const boost::shared_ptr<ZUResource>& resource) {
    if (!resource || !seen_.insert(resource.get()).second) return;
    ZUSnapshot::Resource entry;
    entry.name = resource->name;
    if (ZUResourceList* group = dynamic_cast<ZUResourceList*>(resource.get())) {
      entry.kind = "group";
      const std::vector<boost::shared_ptr<ZUResource> > members = group->getResourceList();
      for (const boost::shared_ptr<ZUResource>& member : members)
        entry.members.push_back(member->name);
      snapshot_.resources.push_back(std::move(entry));
      for (const boost::shared_ptr<ZUResource>& member : members) visit(member);
      return;
    }
    if (ZUResourceState* state = dynamic_cast<ZUResourceState*>(resource.get())) {
      entry.kind = "state";
      ZUCriticalSection lock(state->holdersMutex);
      entry.activated = state->state;
      for (const boost::shared_ptr<ZUOwner>& holder : state->holders) {
        entry.holders.push_back(holder->name);
        addOwner(holder.get());
      }
    } else {
      entry.kind = "plain";
      ZUCriticalSectionRead lock(resource->currentOwnerMutex);
      const boost::shared_ptr<ZUOwner> holder = resource->currentOwner.load();
      if (holder && holder != resource->emptyOwner && holder->name != "emptyOwner") {
        entry.holders.push_back(holder->name);
        addOwner(holder.get());
      }
    }
    snapshot_.resources.push_back(std::move(entry));
  }

  void addOwner(const ZUOwner* owner) {
    if (!owner || !owners_.insert(owner->name).second) return;
    ZUSnapshot::Owner entry;
    entry.name = owner->name;
    entry.module = owner->moduleName;
    entry.releaseFlag = owner->resourceFreed;
    snapshot_.owners.push_back(std::move(entry));
  }

 private:
  ZUSnapshot& snapshot_;
  std::set<const ZUResource*> seen_;
  std::set<std::string> owners_;
};

void pushPair(ZUValue& value, const char* key, ZUValue field) {
  ZUValue pair;
  pair.arrayPush(ZUValue(key));
  pair.arrayPush(std::move(field));
  value.arrayPush(std::move(pair));
}

ZUValue flag(bool on) { return ZUValue(on ? "true" : "false"); }

ZUValue strings(const std::vector<std::string>& texts) {
  ZUValue value;
  for (const std::string& text : texts) value.arrayPush(ZUValue(text));
  return value;
}

long msBetween(std::chrono::steady_clock::time_point from,
               std::chrono::steady_clock::time_point to) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(to - from).count());
}

}  // namespace

ZUSnapshot takeSnapshot(const std::vector<boost::shared_ptr<ZUResource> >& roots) {
  ZUSnapshot snapshot;
  Walk walk(snapshot);
  for (const boost::shared_ptr<ZUResource>& root : roots) walk.visit(root);

  snapshot.waits = ZUWaitRegistry::snapshot();
  for (const ZUWait& wait : snapshot.waits) {
    walk.addOwner(wait.waiterOwner.lock().get());
    walk.addOwner(wait.holderOwner.lock().get());
  }
  snapshot.cycles = ZUWaitRegistry::findCycles(snapshot.waits);

  std::vector<ZUEvent> cycles, stale;
  std::map<std::pair<std::string, std::string>, std::string> parents;
  currentDiagnostics(cycles, stale, parents);
  snapshot.taken = std::chrono::steady_clock::now();
  for (const ZUEvent& event : stale) {
    if (event.waits.empty()) continue;
    snapshot.staleWaits.push_back(
        ZUStaleWait{event.waits.front(), msBetween(event.since, snapshot.taken), false});
  }
  for (ZUSnapshot::Owner& owner : snapshot.owners)
    for (auto it = parents.lower_bound(std::make_pair(owner.name, std::string()));
         it != parents.end() && it->first.first == owner.name; ++it)
      owner.parentOwners.emplace_back(it->first.second, it->second);
  return snapshot;
}

ZUValue ZUSnapshot::toValue() const {
  ZUValue resourceValues, ownerValues, waitValues, cycleValues, staleValues;
  for (const Resource& r : resources) {
    ZUValue value;
    pushPair(value, "name", ZUValue(r.name));
    pushPair(value, "kind", ZUValue(r.kind));
    if (r.kind == "group") {
      pushPair(value, "members", strings(r.members));
    } else {
      pushPair(value, "holders", strings(r.holders));
      if (r.kind == "state") pushPair(value, "activated", flag(r.activated));
    }
    resourceValues.arrayPush(std::move(value));
  }
  for (const Owner& o : owners) {
    ZUValue value, parents;
    pushPair(value, "name", ZUValue(o.name));
    pushPair(value, "module", ZUValue(o.module));
    for (const auto& parent : o.parentOwners)
      pushPair(parents, parent.first.c_str(), ZUValue(parent.second));
    pushPair(value, "parentOwners", std::move(parents));
    pushPair(value, "releaseFlag", flag(o.releaseFlag));
    ownerValues.arrayPush(std::move(value));
  }
  for (const ZUWait& w : waits) {
    ZUValue value = w.toValue();
    pushPair(value, "timeout", ZUValue(std::to_string(w.timeout)));
    waitValues.arrayPush(std::move(value));
  }
  for (const ZUWaitCycle& c : cycles) {
    std::chrono::steady_clock::time_point formed;
    for (const ZUWait& edge : c.edges) formed = std::max(formed, edge.since);
    ZUValue value;
    pushPair(value, "edges", c.toValue());
    pushPair(value, "formedMsAgo", ZUValue(std::to_string(msBetween(formed, taken))));
    cycleValues.arrayPush(std::move(value));
  }
  for (const ZUStaleWait& s : staleWaits) staleValues.arrayPush(s.toValue());

  ZUValue result;
  pushPair(result, "resources", std::move(resourceValues));
  pushPair(result, "owners", std::move(ownerValues));
  pushPair(result, "waits", std::move(waitValues));
  pushPair(result, "cycles", std::move(cycleValues));
  pushPair(result, "staleWaits", std::move(staleValues));
  return result;
}

ZUValue snapshotValue(const std::vector<boost::shared_ptr<ZUResource> >& roots) {
  return takeSnapshot(roots).toValue();
}

}  // namespace ZU
