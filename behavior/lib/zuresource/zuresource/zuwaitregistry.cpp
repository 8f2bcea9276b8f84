#include <map>
#include <set>
#include <utility>

#include <zuresource/zuvalues.h>
#include <zuresource/zuwaitregistry.h>

namespace ZU {

namespace {

// The record behind ZUWaitRegistry. Made once and never destroyed, so that a
// wait that ends while the process exits still finds it.
struct Registry {
  ZUMutex mutex;
  std::uint64_t lastId ZU_GUARDED_BY(mutex) = 0;
  std::map<std::uint64_t, ZUWait> waits ZU_GUARDED_BY(mutex);  // by id, oldest first
};

Registry& registry() {
  static Registry* const instance = new Registry;
  return *instance;
}

// Depth-first search for the cycles through `start` whose other owners all
// sort after it, so that each cycle is found once, from its first owner.
class CycleSearch {
 public:
  explicit CycleSearch(const std::vector<ZUWait>& waits) {
    for (const ZUWait& wait : waits) edgesFrom_[wait.waiter].push_back(&wait);
  }

  std::vector<ZUWaitCycle> run() {
    for (const auto& node : edgesFrom_) {
      start_ = node.first;
      visit(start_);
    }
    return std::move(found_);
  }

 private:
  void visit(const std::string& owner) {
    onPath_.insert(owner);
    for (const ZUWait* edge : edgesFrom_.at(owner)) {
      path_.push_back(edge);
      if (edge->holder == start_) {
        ZUWaitCycle cycle;
        for (const ZUWait* step : path_) cycle.edges.push_back(*step);
        found_.push_back(std::move(cycle));
      } else if (edge->holder > start_ && !onPath_.count(edge->holder) &&
                 edgesFrom_.count(edge->holder)) {
        visit(edge->holder);
      }
      path_.pop_back();
    }
    onPath_.erase(owner);
  }

  std::map<std::string, std::vector<const ZUWait*> > edgesFrom_;  // by waiter name
  std::string start_;
  std::vector<const ZUWait*> path_;
  std::set<std::string> onPath_;
  std::vector<ZUWaitCycle> found_;
};

}  // namespace

// --- ZUWait ----------------------------------------------------------------------

long ZUWait::ageMs(std::chrono::steady_clock::time_point now) const {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(now - since).count());
}

std::string ZUWait::toString() const {
  return waiter + " (" + waiterModule + ") waits on " + holder + " (" + holderModule + ") for " +
         resource + ", " + std::to_string(ageMs()) + " ms";
}

ZUValue ZUWait::toValue() const {
  ZUValue value;
  pushKeyValue(value, "waiter", ZUValue(waiter));
  pushKeyValue(value, "waiterModule", ZUValue(waiterModule));
  pushKeyValue(value, "holder", ZUValue(holder));
  pushKeyValue(value, "holderModule", ZUValue(holderModule));
  pushKeyValue(value, "resource", ZUValue(resource));
  pushKeyValue(value, "ageMs", ZUValue(std::to_string(ageMs())));
  return value;
}

// --- ZUWaitCycle -----------------------------------------------------------------

std::string ZUWaitCycle::toString() const {
  std::string text = "deadlock:";
  if (edges.empty()) return text;
  text += ' ';
  text += edges.front().waiter;
  for (const ZUWait& edge : edges) text += " -[" + edge.resource + "]-> " + edge.holder;
  return text;
}

ZUValue ZUWaitCycle::toValue() const {
  ZUValue value;
  for (const ZUWait& edge : edges) value.arrayPush(edge.toValue());
  return value;
}

// --- ZUWaitRegistry --------------------------------------------------------------

ZUWaitRegistry::Record::Record(const boost::shared_ptr<ZUOwner>& waiter, ZUOwner& holder,
                               const std::string& resource, int timeoutSeconds) noexcept
    : id_(0) {
  try {
    ZUWait wait;
    wait.waiter = waiter->name;
    wait.waiterModule = waiter->moduleName;
    wait.holder = holder.name;
    wait.holderModule = holder.moduleName;
    wait.resource = resource;
    wait.waiterOwner = waiter;
    wait.holderOwner = holder.weak_from_this();
    wait.since = std::chrono::steady_clock::now();
    wait.timeout = timeoutSeconds;

    Registry& r = registry();
    ZUMutexLock lock(r.mutex);
    wait.id = ++r.lastId;
    r.waits.emplace(wait.id, std::move(wait));
    id_ = r.lastId;
  } catch (...) {
    id_ = 0;  // a diagnostic must never change the wait it watches
  }
}

ZUWaitRegistry::Record::~Record() {
  if (id_ == 0) return;
  Registry& r = registry();
  ZUMutexLock lock(r.mutex);
  r.waits.erase(id_);
}

std::vector<ZUWait> ZUWaitRegistry::snapshot() {
  Registry& r = registry();
  std::vector<ZUWait> waits;
  ZUMutexLock lock(r.mutex);
  waits.reserve(r.waits.size());
  for (const auto& entry : r.waits) waits.push_back(entry.second);
  return waits;
}

std::vector<ZUWaitCycle> ZUWaitRegistry::cycles() { return findCycles(snapshot()); }

std::vector<ZUWaitCycle> ZUWaitRegistry::findCycles(const std::vector<ZUWait>& waits) {
  return CycleSearch(waits).run();
}

}  // namespace ZU
