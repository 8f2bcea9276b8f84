#include "zumanager/zumanager.h"

#include <algorithm>
#include <limits>
#include <set>
#include <thread>
#include <utility>

#include <boost/make_shared.hpp>

#include <zuhost/zumutex.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuexplain.h>
#include <zuresource/zuresourcelist.h>
#include <zuresource/zusnapshot.h>
#include <zuresource/zuwaitregistry.h>

#include <zuobserve/zujson.h>

namespace ZU {

namespace {

const char kFile[] = "zumanager.cpp";

/// The request running in this thread, if any: its wait events are its own.
struct Current {
  const void* manager;
  const std::string* owner;
  const ZUManager::WaitHandler* onWait;
  int priority;
  const boost::shared_ptr<ZUOwner>* object;  // the request's owner object
};
thread_local const Current* tCurrent = nullptr;

/// Sets tCurrent for one scope.
class CurrentScope {
 public:
  explicit CurrentScope(const Current* current) : saved_(tCurrent) { tCurrent = current; }
  ~CurrentScope() { tCurrent = saved_; }
  CurrentScope(const CurrentScope&) = delete;
  CurrentScope& operator=(const CurrentScope&) = delete;

 private:
  const Current* saved_;
};

ZUResourceState* asState(const boost::shared_ptr<ZUResource>& r) {
  return dynamic_cast<ZUResourceState*>(r.get());
}

constexpr std::chrono::milliseconds kPollPeriod{ZUOwnerStrong::kPollPeriodMs};
/// A free resource goes to its fallback owner once it has been free this
/// long: a waiter that was just served takes it within one polling period.
constexpr std::chrono::milliseconds kFallbackAfter = 2 * kPollPeriod;

}  // namespace

ZUManagerError::ZUManagerError(Code code, const std::string& method,
                               const std::string& description)
    : ZUError("ZUManager", method, description, kFile, 0), code_(code) {}

// --- Cancel tokens ------------------------------------------------------------

void ZUAcquireCancel::cancel() {
  ZUMutexLock lock(mutex_);
  cancelled_ = true;
  if (object_) object_->freeResource();  // its wait ends at the next poll
}

bool ZUAcquireCancel::attach(const boost::shared_ptr<ZUOwner>& object) {
  ZUMutexLock lock(mutex_);
  if (cancelled_) return false;
  object_ = object;
  return true;
}

void ZUAcquireCancel::detach() {
  ZUMutexLock lock(mutex_);
  object_.reset();
}

// --- Inner records ------------------------------------------------------------

/// One request in progress. Its fields are guarded by the manager's mutex_,
/// except `object` (immutable).
struct ZUManager::Request {
  boost::shared_ptr<ZUOwner> object;
  ZUAcquireResult::Stop stop = ZUAcquireResult::Stop::None;
};

/// Where a module's notices go. `open` is atomic; the rest immutable.
struct ZUManager::Outlet {
  std::string module;
  ZUNoticeHandler handler;
  /// The notices made by the manager itself (lost), delivered in order with
  /// the library's "__onResource__" through the module's task thread.
  ZUMutex queuedMutex;
  std::deque<ZUNotice> queued ZU_GUARDED_BY(queuedMutex);
  std::atomic<bool> open{true};
  /// Atomic: the thread of the notice running now, if any.
  std::atomic<std::thread::id> runningIn{};
};

/// An owner: guarded by mutex_.
struct ZUManager::Owner {
  std::string name;
  std::string module;
  int priority = 0;
  /// The objects of finished requests that hold something, or may be given
  /// something back by a descendant they handed it down to.
  std::vector<boost::shared_ptr<ZUOwner>> objects;
  /// The requests in progress.
  std::vector<Request*> requests;
};

/// A module: guarded by mutex_ (`module` and `outlet` are immutable).
struct ZUManager::Module {
  boost::shared_ptr<ZUModule> module;
  std::shared_ptr<Outlet> outlet;
  bool closing = false;
};

/// A take the policy thread will carry out at `due`, if the holder still
/// holds `leaf` and the requester still waits for it.
struct ZUManager::Take {
  std::chrono::steady_clock::time_point due;
  std::string leaf;
  boost::weak_ptr<ZUOwner> holder;
  boost::weak_ptr<ZUOwner> requester;
  std::string reason;
};

/// The priority of an owner object.
struct ZUManager::Ranked {
  boost::weak_ptr<ZUOwner> object;
  int priority = 0;
  bool fallback = false;  // given the resource as its fallback owner
};

/// Hands the wait events of a request to the policies and its WaitHandler,
/// in its own thread.
class ZUManager::Listener : public ZUObserver {
 public:
  explicit Listener(ZUManager* manager) : manager_(manager) {}
  void onEvent(const ZUEvent& event) override {
    const Current* current = tCurrent;
    if (event.kind != ZUEvent::Kind::Waiting || !current || current->manager != manager_ ||
        event.owner != *current->owner)
      return;
    manager_->onWaiting(event, current->priority, *current->object);
    if (current->onWait)
      (*current->onWait)(ZUWaitReport{event.resource, event.holder, event.holderModule});
  }

 private:
  ZUManager* manager_;
};

// --- Construction -------------------------------------------------------------

std::vector<boost::shared_ptr<ZUResource>> buildResources(const ZUResourceTree& tree,
                                                          const ZUFleetFactory& fleet) {
  std::unordered_map<std::string, boost::shared_ptr<ZUResource>> made;
  for (const ZUTreeResource& r : tree.resources) {
    boost::shared_ptr<ZUResource> one;
    if (r.fleet) {
      if (!fleet)
        throw ZUManagerError(ZUManagerError::Code::BadArgument, "buildResources",
                             "the fleet resource " + quoteName(r.name) +
                                 " needs a fleet session, which this manager has not");
      one = fleet(r);
    } else if (r.kind == ZUTreeKind::Plain) {
      one = boost::make_shared<ZUResource>(r.libraryName, nullptr);
    } else if (r.kind == ZUTreeKind::State) {
      one = boost::make_shared<ZUResourceState>(r.libraryName, nullptr);
    } else {
      one = boost::make_shared<ZUResourceList>(r.libraryName, nullptr);
    }
    made[r.name] = one;
  }
  for (const ZUTreeResource& r : tree.resources) {
    for (const std::string& m : r.members) made.at(r.name)->addResource(made.at(m));
    if (r.activated) asState(made.at(r.name))->setState(true);
  }
  std::vector<boost::shared_ptr<ZUResource>> roots;
  for (const std::string& r : tree.roots()) roots.push_back(made.at(r));
  return roots;
}

std::map<std::string, ZUResourcePolicy> ZUManager::policiesOf(const ZUResourceTree& tree) {
  std::map<std::string, ZUResourcePolicy> policies;
  for (const ZUTreeResource& r : tree.resources) {
    if (r.graceMs < 0 && r.fallback.empty()) continue;
    ZUResourcePolicy& p = policies[r.libraryName];
    if (r.graceMs >= 0) p.graceMs = static_cast<int>(r.graceMs);
    p.fallback = r.fallback;
  }
  return policies;
}

ZUManager::ZUManager(const ZUResourceTree& tree, const ZUFleetFactory& fleet)
    : ZUManager(buildResources(tree, fleet), policiesOf(tree)) {}

ZUManager::ZUManager(const std::vector<boost::shared_ptr<ZUResource>>& roots,
                     const std::map<std::string, ZUResourcePolicy>& policies)
    : start_(std::chrono::steady_clock::now()), broker_(boost::make_shared<ZUBroker>()), roots_(roots) {
  // Every resource of the trees by name, and each one's leaves in member order.
  std::vector<boost::shared_ptr<ZUResource>> order;  // parents before members
  for (const auto& r : roots) {
    if (!r) throw ZUManagerError(ZUManagerError::Code::BadArgument, "ZUManager", "empty resource");
    order.push_back(r);
  }
  for (std::size_t i = 0; i < order.size(); ++i) {
    const boost::shared_ptr<ZUResource>& r = order[i];
    auto found = resources_.find(r->name);
    if (found != resources_.end()) {
      if (found->second != r)
        throw ZUManagerError(ZUManagerError::Code::BadArgument, "ZUManager",
                             "two resources are named " + quoteName(r->name));
      continue;
    }
    if (r->name.empty())
      throw ZUManagerError(ZUManagerError::Code::EmptyName, "ZUManager", "a resource has no name");
    resources_[r->name] = r;
    if (auto* group = dynamic_cast<ZUResourceList*>(r.get()))
      for (const auto& m : group->getResourceList()) order.push_back(m);
  }
  // Members come after their groups in `order`: walk it backwards.
  for (auto it = order.rbegin(); it != order.rend(); ++it) {
    const boost::shared_ptr<ZUResource>& r = *it;
    if (leaves_.count(r->name)) continue;
    std::vector<std::string> leaves;
    if (auto* group = dynamic_cast<ZUResourceList*>(r.get())) {
      for (const auto& m : group->getResourceList())
        for (const std::string& l : leaves_.at(m->name))
          if (std::find(leaves.begin(), leaves.end(), l) == leaves.end()) leaves.push_back(l);
    } else {
      leaves.push_back(r->name);
      leafOrder_.push_back(r->name);
    }
    leaves_[r->name] = std::move(leaves);
  }
  // Policies: a member's own, else its nearest group's, else the default.
  for (const auto& p : policies) {
    if (!resources_.count(p.first))
      throw ZUManagerError(ZUManagerError::Code::BadArgument, "ZUManager",
                           "a policy names no resource: " + quoteName(p.first));
    if (p.second.graceMs < 0 || p.second.graceMs > ZUResourcePolicy::kMaxGraceMs)
      throw ZUManagerError(ZUManagerError::Code::BadArgument, "ZUManager",
                           "the grace period of " + quoteName(p.first) + " is " +
                               std::to_string(p.second.graceMs) + " ms, not within 0.." +
                               std::to_string(ZUResourcePolicy::kMaxGraceMs));
  }
  for (auto it = order.begin(); it != order.end(); ++it) {  // groups before members
    auto own = policies.find((*it)->name);
    if (own == policies.end()) continue;
    for (const std::string& leaf : leaves_.at((*it)->name)) {
      if (!own->second.fallback.empty() && asState(resources_.at(leaf)))
        throw ZUManagerError(ZUManagerError::Code::BadArgument, "ZUManager",
                             "the state resource " + quoteName(leaf) +
                                 " is shared: it has no fallback owner");
      policy_[leaf] = own->second;  // a member further down overrides
    }
  }
  for (const std::string& leaf : leafOrder_) policy_.emplace(leaf, ZUResourcePolicy());
  listener_ = boost::make_shared<Listener>(this);
  ZUObservers::add(listener_);
  policyThread_ = std::thread([this] { policyLoop(); });
}

ZUManager::~ZUManager() {
  {
    ZUMutexLock lock(policyMutex_);
    stopping_ = true;
    policyChanged_.notify_all();
  }
  policyThread_.join();
  std::vector<std::string> names;
  {
    ZUMutexLock lock(mutex_);
    for (const auto& m : modules_) names.push_back(m.first);
  }
  for (const std::string& n : names) closeModule(n);
  ZUObservers::remove(listener_);
}

// --- Checks -------------------------------------------------------------------

void ZUManager::requireName(const std::string& name, const char* method, const char* kind,
                            const char* aKind) {
  if (name.empty())
    throw ZUManagerError(ZUManagerError::Code::EmptyName, method,
                         std::string("empty ") + kind + " name");
  if (name.size() > kMaxNameLength)
    throw ZUManagerError(ZUManagerError::Code::BadArgument, method,
                         std::string(aKind) + " name of " + std::to_string(name.size()) +
                             " bytes is over the limit of " + std::to_string(kMaxNameLength));
  if (name == contract::kPlaceholderName)
    throw ZUManagerError(ZUManagerError::Code::BadArgument, method,
                         quoteName(name) + " is the name of a free resource's holder");
}

void ZUManager::requireResource(const std::string& name, const char* method) const {
  if (name.empty())
    throw ZUManagerError(ZUManagerError::Code::EmptyName, method, "empty resource name");
  if (!resources_.count(name))
    throw ZUManagerError(ZUManagerError::Code::UnknownResource, method,
                         "no resource is named " + quoteName(name));
}

ZUManager::Owner& ZUManager::ownerLocked(const std::string& name, const char* method) {
  return const_cast<Owner&>(static_cast<const ZUManager*>(this)->ownerLocked(name, method));
}

const ZUManager::Owner& ZUManager::ownerLocked(const std::string& name,
                                               const char* method) const {
  if (name.empty()) throw ZUManagerError(ZUManagerError::Code::EmptyName, method, "empty owner name");
  auto it = owners_.find(name);
  if (it == owners_.end())
    throw ZUManagerError(ZUManagerError::Code::UnknownOwner, method,
                         "no owner is named " + quoteName(name));
  return *it->second;
}

bool ZUManager::hasResource(const std::string& name) const { return resources_.count(name) != 0; }

boost::shared_ptr<ZUResource> ZUManager::resource(const std::string& name) const {
  requireResource(name, "resource");
  return resources_.at(name);
}

std::vector<std::string> ZUManager::leavesOf(const std::string& name) const {
  requireResource(name, "leavesOf");
  return leaves_.at(name);
}

// --- Modules and owners -------------------------------------------------------

void ZUManager::openModule(const std::string& name, ZUNoticeHandler onNotice) {
  requireName(name, "openModule", "module", "a module");
  auto outlet = std::make_shared<Outlet>();
  outlet->module = name;
  outlet->handler = std::move(onNotice);
  auto module = boost::make_shared<ZUModule>(name);
  std::vector<boost::shared_ptr<ZUModule>> gone;
  module->bindMethod<std::string>(
      "__onResource__", [this, outlet](const std::string& leaf) { onResource(outlet, leaf); });
  module->bindMethod<std::string>("__onLost__",
                                  [outlet](const std::string&) { deliverQueued(outlet); });
  {
    ZUMutexLock lock(mutex_);
    if (modules_.count(name))
      throw ZUManagerError(ZUManagerError::Code::ModuleExists, "openModule",
                           "a module named " + quoteName(name) + " is open already");
    auto m = std::make_shared<Module>();
    m->module = module;
    m->outlet = outlet;
    modules_[name] = m;
    broker_->addModule(module);  // replaces a closed module of that name
    gone = purgeClosedLocked();
  }
}

bool ZUManager::hasModule(const std::string& name) const {
  ZUMutexLock lock(mutex_);
  auto it = modules_.find(name);
  return it != modules_.end() && !it->second->closing;
}

void ZUManager::closeModule(const std::string& name) {
  std::shared_ptr<Module> m;
  std::set<std::string> names;  // its owners
  {
    ZUMutexLock lock(mutex_);
    auto it = modules_.find(name);
    if (it == modules_.end()) return;
    m = it->second;
    if (m->closing) {  // another thread closes it: wait for that close
      for (;;) {
        auto now = modules_.find(name);
        if (now == modules_.end() || now->second != m) return;
        lock.wait(requestEnded_);
      }
    }
    m->closing = true;
    m->outlet->open = false;
    for (const auto& o : owners_) {
      if (o.second->module != name) continue;
      names.insert(o.first);
      for (Request* r : o.second->requests) {
        r->stop = ZUAcquireResult::Stop::ModuleClosed;
        r->object->freeResource();  // its wait ends with "box stop while waiting"
      }
    }
    for (;;) {
      bool running = false;
      for (const std::string& n : names) running = running || !owners_.at(n)->requests.empty();
      if (!running) break;
      lock.wait(requestEnded_);
    }
  }
  // Give back everything its owners hold. A release may hand a resource
  // back to another of its owners: go round until none holds anything.
  for (int round = 0; round < 64; ++round) {
    std::vector<std::pair<std::string, boost::shared_ptr<ZUOwner>>> held;
    for (const std::string& leaf : leafOrder_)
      for (const auto& h : holderObjects(leaf))
        if (names.count(h->name)) {
          held.emplace_back(leaf, h);
          break;
        }
    if (held.empty()) break;
    releaseHeld(held, resources_);
  }
  // A notice that runs now ends before we return (unless it is the caller).
  if (m->outlet->runningIn.load() != std::this_thread::get_id()) m->module->waitIdle();
  std::vector<boost::shared_ptr<ZUModule>> gone;
  {
    ZUMutexLock lock(mutex_);
    for (const std::string& n : names) owners_.erase(n);
    modules_.erase(name);
    // The module stays on the broker a while: a request that read one of its
    // owners as holder just before the release may still ask the broker for
    // it, and a module the broker does not know fails that request.
    closed_.push_back({name, m->module, std::chrono::steady_clock::now()});
    gone = purgeClosedLocked();
    requestEnded_.notify_all();
  }
}

std::vector<boost::shared_ptr<ZUModule>> ZUManager::purgeClosedLocked() {
  std::vector<boost::shared_ptr<ZUModule>> gone;
  const auto now = std::chrono::steady_clock::now();
  while (!closed_.empty() && now - closed_.front().when > kClosedModuleLinger) {
    const Closed& c = closed_.front();
    if (broker_->getModule(c.name) == c.module) broker_->removeModule(c.name);
    gone.push_back(c.module);
    closed_.pop_front();
  }
  return gone;  // dropped by the caller, after mutex_: a dropped module joins its task
}

void ZUManager::makeOwner(const std::string& module, const std::string& owner, int priority) {
  requireName(owner, "makeOwner", "owner", "an owner");
  if (resources_.count(owner))
    // A state resource waits on an owner named after it.
    throw ZUManagerError(ZUManagerError::Code::BadArgument, "makeOwner",
                         quoteName(owner) + " is the name of a resource");
  ZUMutexLock lock(mutex_);
  auto m = modules_.find(module);
  if (module.empty() || m == modules_.end() || m->second->closing)
    throw ZUManagerError(ZUManagerError::Code::UnknownModule, "makeOwner",
                         "no open module is named " + quoteName(module));
  auto it = owners_.find(owner);
  if (it != owners_.end()) {
    if (it->second->module == module) {
      it->second->priority = priority;
      return;
    }
    throw ZUManagerError(ZUManagerError::Code::OtherModule, "makeOwner",
                         "owner " + quoteName(owner) + " belongs to module " +
                             quoteName(it->second->module));
  }
  auto o = std::make_unique<Owner>();
  o->name = owner;
  o->module = module;
  o->priority = priority;
  owners_[owner] = std::move(o);
}

std::string ZUManager::moduleOf(const std::string& owner) const {
  ZUMutexLock lock(mutex_);
  auto it = owners_.find(owner);
  return it == owners_.end() ? std::string() : it->second->module;
}

void ZUManager::onResource(const std::shared_ptr<Outlet>& outlet, const std::string& leaf) {
  if (!outlet->open) return;
  ZUNotice notice;
  notice.kind = ZUNotice::Kind::Wanted;
  notice.resource = leaf;
  if (resources_.count(leaf)) {
    std::vector<std::string> holders = holdersOf(leaf);
    ZUMutexLock lock(mutex_);
    for (const std::string& h : holders) {
      auto it = owners_.find(h);
      if (it != owners_.end() && it->second->module == outlet->module) {
        notice.owner = h;
        break;
      }
    }
  }
  deliver(*outlet, notice);
}

void ZUManager::deliverQueued(const std::shared_ptr<Outlet>& outlet) {
  ZUNotice notice;
  {
    ZUMutexLock lock(outlet->queuedMutex);
    if (outlet->queued.empty()) return;
    notice = std::move(outlet->queued.front());
    outlet->queued.pop_front();
  }
  deliver(*outlet, notice);
}

void ZUManager::deliver(Outlet& outlet, const ZUNotice& notice) {
  if (!outlet.open || !outlet.handler) return;
  outlet.runningIn = std::this_thread::get_id();
  struct Done {
    Outlet& outlet;
    ~Done() { outlet.runningIn = std::thread::id(); }
  } done{outlet};
  outlet.handler(notice);
}

void ZUManager::tell(const std::string& module, const ZUNotice& notice) {
  boost::shared_ptr<ZUModule> m;
  std::shared_ptr<Outlet> outlet;
  {
    ZUMutexLock lock(mutex_);
    auto it = modules_.find(module);
    if (it == modules_.end() || it->second->closing) return;
    m = it->second->module;
    outlet = it->second->outlet;
  }
  {
    ZUMutexLock lock(outlet->queuedMutex);
    outlet->queued.push_back(notice);
  }
  m->post<std::string>("__onLost__", std::string());
}

// --- Holdings -----------------------------------------------------------------

boost::shared_ptr<ZUOwner> ZUManager::newObject(const Owner& owner) const {
  boost::shared_ptr<ZUOwner> object = ZUResource::createOwner(0, owner.name, owner.module, nullptr);
  object->setParentBroker(broker_);
  return object;
}

std::vector<boost::shared_ptr<ZUOwner>> ZUManager::holderObjects(const std::string& leaf) const {
  const boost::shared_ptr<ZUResource>& r = resources_.at(leaf);
  if (ZUResourceState* s = asState(r)) {
    ZUCriticalSection lock(s->holdersMutex);
    return s->holders;
  }
  return {r->currentOwner.load()};
}

std::vector<std::string> ZUManager::holdersOf(const std::string& leaf) const {
  requireResource(leaf, "holdersOf");
  std::vector<std::string> out;
  for (const auto& h : holderObjects(leaf)) out.push_back(h->name);
  return out;
}

std::vector<std::pair<std::string, boost::shared_ptr<ZUOwner>>> ZUManager::heldLeaves(
    const std::string& owner, const std::string& resource) const {
  std::vector<std::pair<std::string, boost::shared_ptr<ZUOwner>>> held;
  for (const std::string& leaf : leaves_.at(resource))
    for (const auto& h : holderObjects(leaf))
      if (h->name == owner) {
        held.emplace_back(leaf, h);
        break;
      }
  return held;
}

void ZUManager::releaseHeld(
    const std::vector<std::pair<std::string, boost::shared_ptr<ZUOwner>>>& held,
    const std::unordered_map<std::string, boost::shared_ptr<ZUResource>>& resources) {
  for (const auto& h : held) resources.at(h.first)->release(h.second);
}

bool ZUManager::holdsAny(const ZUOwner* object) const {
  for (const std::string& leaf : leafOrder_)
    for (const auto& h : holderObjects(leaf))
      if (h.get() == object) return true;
  return false;
}

bool ZUManager::descendantBusyLocked(const std::string& name) const {
  for (auto it = owners_.upper_bound(name);
       it != owners_.end() && it->first.compare(0, name.size(), name) == 0; ++it) {
    if (!it->second->requests.empty()) return true;
    for (const std::string& leaf : leafOrder_)
      for (const auto& h : holderObjects(leaf))
        if (h->name == it->first) return true;
  }
  return false;
}

void ZUManager::pruneLocked(const std::string& name) {
  // An object that holds nothing can be given something back only by a
  // descendant it handed a resource down to; while no descendant waits or
  // holds, no such hand-back can come.
  for (std::size_t length = 1; length <= name.size(); ++length) {
    auto it = owners_.find(std::string_view(name).substr(0, length));
    if (it == owners_.end()) continue;
    Owner& o = *it->second;
    if (o.objects.empty() || descendantBusyLocked(o.name)) continue;
    o.objects.erase(std::remove_if(o.objects.begin(), o.objects.end(),
                                   [this](const boost::shared_ptr<ZUOwner>& object) {
                                     return !holdsAny(object.get());
                                   }),
                    o.objects.end());
  }
}

// --- Requests -----------------------------------------------------------------

ZUAcquireResult ZUManager::acquire(const ZUAcquireRequest& request, const WaitHandler& onWait,
                                   ZUAcquireCancel* cancel) {
  return acquireAs(request, onWait, cancel, false);
}

ZUAcquireResult ZUManager::acquireAs(const ZUAcquireRequest& request, const WaitHandler& onWait,
                                     ZUAcquireCancel* cancel, bool fallback) {
  requireResource(request.resource, "acquire");
  for (const std::string& n : request.noWait) requireResource(n, "acquire");
  Request running;
  int priority;
  {
    ZUMutexLock lock(mutex_);
    Owner& o = ownerLocked(request.owner, "acquire");
    if (modules_.at(o.module)->closing)
      throw ZUManagerError(ZUManagerError::Code::UnknownModule, "acquire",
                           "module " + quoteName(o.module) + " is closing");
    running.object = newObject(o);
    o.requests.push_back(&running);
    priority = fallback ? std::numeric_limits<int>::min() : request.priority.value_or(o.priority);
  }
  rank(running.object, priority, fallback);
  std::vector<std::string> heldBefore;
  for (const auto& h : heldLeaves(request.owner, request.resource)) heldBefore.push_back(h.first);

  ZUAcquireResult result;
  if (cancel && !cancel->attach(running.object)) {
    result.kind = ZUAcquireResult::Kind::Failed;
    result.error = contract::kStopWhileWaiting;
  } else {
    Current current{this, &request.owner, onWait ? &onWait : nullptr, priority, &running.object};
    CurrentScope scope(&current);
    try {
      result.notObtained = resources_.at(request.resource)
                               ->waitFor(running.object, "", request.timeoutSeconds,
                                         request.noWait);
      result.kind = result.notObtained.empty() ? ZUAcquireResult::Kind::Granted
                                               : ZUAcquireResult::Kind::NotObtained;
    } catch (const ZUError& e) {
      result.kind = ZUAcquireResult::Kind::Failed;
      result.error = e.getDescription();
    }
    if (cancel) cancel->detach();
  }

  ZUAcquireResult::Stop stop;
  {
    ZUMutexLock lock(mutex_);
    stop = running.stop;
  }
  if (stop == ZUAcquireResult::Stop::None && cancel && cancel->cancelled())
    stop = ZUAcquireResult::Stop::Cancelled;
  if (stop != ZUAcquireResult::Stop::None) {
    // Stopped: whatever this request obtained goes back, even when the stop
    // came too late to end its wait.
    std::vector<std::pair<std::string, boost::shared_ptr<ZUOwner>>> obtained;
    for (const auto& h : heldLeaves(request.owner, request.resource))
      if (h.second == running.object &&
          std::find(heldBefore.begin(), heldBefore.end(), h.first) == heldBefore.end())
        obtained.push_back(h);
    releaseHeld(obtained, resources_);
    if (result.kind != ZUAcquireResult::Kind::Failed) {
      result = ZUAcquireResult();
      result.kind = ZUAcquireResult::Kind::Failed;
      result.error = contract::kStopWhileWaiting;
    }
    if (result.error == contract::kStopWhileWaiting) result.stop = stop;
  }

  ZUMutexLock lock(mutex_);
  Owner& o = *owners_.at(request.owner);
  o.requests.erase(std::find(o.requests.begin(), o.requests.end(), &running));
  o.objects.push_back(running.object);
  pruneLocked(request.owner);
  requestEnded_.notify_all();
  return result;
}

void ZUManager::release(const std::string& owner, const std::string& resource) {
  requireResource(resource, "release");
  {
    ZUMutexLock lock(mutex_);
    ownerLocked(owner, "release");
  }
  releaseHeld(heldLeaves(owner, resource), resources_);
  ZUMutexLock lock(mutex_);
  if (owners_.count(owner)) pruneLocked(owner);
}

std::vector<std::string> ZUManager::forceRelease(const std::string& by, const std::string& owner,
                                               const std::string& resource) {
  requireResource(resource, "forceRelease");
  if (by.empty())
    throw ZUManagerError(ZUManagerError::Code::EmptyName, "forceRelease", "empty operator name");
  {
    ZUMutexLock lock(mutex_);
    ownerLocked(owner, "forceRelease");
  }
  std::vector<std::string> released;
  for (const auto& h : heldLeaves(owner, resource)) {
    takeFrom(h.first, h.second, by, "", "force-released by the operator " + quoteName(by));
    released.push_back(h.first);
  }
  ZUMutexLock lock(mutex_);
  if (owners_.count(owner)) pruneLocked(owner);
  return released;
}

void ZUManager::switchOwner(const std::string& owner, const std::string& resource) {
  requireResource(resource, "switchOwner");
  boost::shared_ptr<ZUOwner> object;
  int priority;
  {
    ZUMutexLock lock(mutex_);
    Owner& o = ownerLocked(owner, "switchOwner");
    object = newObject(o);
    o.objects.push_back(object);
    priority = o.priority;
  }
  rank(object, priority, false);
  resources_.at(resource)->switchOwner(object, "", 0);
  ZUMutexLock lock(mutex_);
  if (owners_.count(owner)) pruneLocked(owner);
}

ZUResourceState& ZUManager::requireState(const std::string& resource, const char* method) const {
  requireResource(resource, method);
  ZUResourceState* s = asState(resources_.at(resource));
  if (!s)
    throw ZUManagerError(ZUManagerError::Code::NotAState, method,
                         quoteName(resource) + " is not a state resource");
  return *s;
}

void ZUManager::setState(const std::string& resource, bool activated) {
  requireState(resource, "setState").setState(activated);
}

void ZUManager::releaseState(const std::string& resource) {
  requireState(resource, "releaseState").releaseState();
}

// --- Policies -----------------------------------------------------------------

void ZUManager::rank(const boost::shared_ptr<ZUOwner>& object, int priority, bool fallback) {
  ZUMutexLock lock(policyMutex_);
  if (ranks_.size() > 2 * ranksSwept_ + 64) {  // forget the objects that are gone
    for (auto it = ranks_.begin(); it != ranks_.end();)
      it = it->second.object.expired() ? ranks_.erase(it) : std::next(it);
    ranksSwept_ = ranks_.size();
  }
  ranks_[object.get()] = Ranked{object, priority, fallback};
}

void ZUManager::onWaiting(const ZUEvent& event, int priority,
                          const boost::shared_ptr<ZUOwner>& requester) {
  auto found = resources_.find(event.resource);
  if (found == resources_.end() || asState(found->second)) return;  // a state is shared
  const ZUResourcePolicy& policy = policy_.at(event.resource);
  // Declared before the lock: dropped after it (never the last handle: the
  // wait that calls us holds one).
  boost::shared_ptr<ZUOwner> holder = found->second->currentOwner.load();
  if (holder->name != event.holder) return;
  Take take;
  take.leaf = event.resource;
  take.holder = holder;
  ZUMutexLock lock(policyMutex_);
  auto ranked = ranks_.find(holder.get());
  if (ranked == ranks_.end() || ranked->second.object.lock() != holder) return;
  const auto now = std::chrono::steady_clock::now();
  if (ranked->second.fallback) {
    take.due = now;
    take.reason = "the fallback holder yields to " + quoteName(event.owner);
  } else if (priority > ranked->second.priority) {
    take.due = now + std::chrono::milliseconds(policy.graceMs);
    take.reason = "taken by " + quoteName(event.owner) + " of priority " +
                  std::to_string(priority) + " over " + std::to_string(ranked->second.priority) +
                  " after a grace of " + std::to_string(policy.graceMs) + " ms";
  } else {
    return;
  }
  take.requester = requester;
  takes_.push_back(std::move(take));
  policyChanged_.notify_all();
}

void ZUManager::policyLoop() {
  std::map<std::string, std::chrono::steady_clock::time_point> freeSince;
  ZUMutexLock lock(policyMutex_);
  while (!stopping_) {
    const auto now = std::chrono::steady_clock::now();
    std::vector<Take> due;
    for (auto it = takes_.begin(); it != takes_.end();) {
      if (it->due <= now) {
        due.push_back(std::move(*it));
        it = takes_.erase(it);
      } else {
        ++it;
      }
    }
    lock.unlock();
    for (const Take& t : due) perform(t);
    fallbackPass(freeSince);
    lock.lock();
    // Wake at the next poll, or sooner for a take due before it (one may
    // have come while the lock was let go).
    auto wake = now + kPollPeriod;
    for (const Take& t : takes_) wake = std::min(wake, t.due);
    if (!stopping_ && wake > std::chrono::steady_clock::now()) lock.waitUntil(policyChanged_, wake);
  }
}

void ZUManager::perform(const Take& take) {
  boost::shared_ptr<ZUOwner> holder = take.holder.lock();
  boost::shared_ptr<ZUOwner> requester = take.requester.lock();
  if (!holder || !requester) return;
  if (!resources_.at(take.leaf)->currentOwner.is(holder)) return;  // let go in time
  bool waits = false;
  for (const ZUWait& w : ZUWaitRegistry::snapshot())
    waits = waits || (w.resource == take.leaf && w.waiterOwner.lock() == requester);
  if (!waits) return;  // the request ended meanwhile
  takeFrom(take.leaf, holder, requester->name, requester->moduleName, take.reason);
}

void ZUManager::takeFrom(const std::string& leaf, const boost::shared_ptr<ZUOwner>& holder,
                         const std::string& by, const std::string& byModule,
                         const std::string& reason) {
  resources_.at(leaf)->release(holder);
  ZUNotice notice;
  notice.kind = ZUNotice::Kind::Lost;
  notice.resource = leaf;
  notice.owner = holder->name;
  notice.by = by;
  notice.reason = reason;
  tell(holder->moduleName, notice);
  if (ZUObservers::active()) {
    ZUEvent lost = ZUEvent::make(ZUEvent::Kind::Lost, leaf, holder.get());
    lost.holder = by;  // who took it
    lost.holderModule = byModule;
    lost.reason = reason;
    ZUObservers::emit(std::move(lost));
  }
}

void ZUManager::fallbackPass(
    std::map<std::string, std::chrono::steady_clock::time_point>& freeSince) {
  std::vector<ZUWait> waits;
  bool waitsRead = false;
  for (const auto& p : policy_) {
    if (p.second.fallback.empty()) continue;
    const std::string& leaf = p.first;
    if (resources_.at(leaf)->currentOwner.load()->name != contract::kPlaceholderName) {
      freeSince.erase(leaf);
      continue;
    }
    const auto now = std::chrono::steady_clock::now();
    auto since = freeSince.emplace(leaf, now).first;
    if (now - since->second < kFallbackAfter) continue;
    if (!waitsRead) {
      waits = ZUWaitRegistry::snapshot();
      waitsRead = true;
    }
    if (std::any_of(waits.begin(), waits.end(),
                    [&leaf](const ZUWait& w) { return w.resource == leaf; }))
      continue;
    {
      ZUMutexLock lock(mutex_);
      auto owner = owners_.find(p.second.fallback);
      if (owner == owners_.end() || modules_.at(owner->second->module)->closing) continue;
    }
    try {
      ZUAcquireRequest request;
      request.owner = p.second.fallback;
      request.resource = leaf;
      request.timeoutSeconds = 0;
      request.noWait = {leaf};
      acquireAs(request, WaitHandler(), nullptr, true);
    } catch (const ZUManagerError&) {
      // Its module closed meanwhile: the next pass looks again.
    }
    freeSince.erase(leaf);
  }
}

// --- Reads --------------------------------------------------------------------

std::string ZUManager::statusText() const {
  std::string text;
  for (const auto& r : roots_) text += r->httpGet(0);
  return text;
}

ZUValue ZUManager::statusValues() const {
  ZUValue values;
  values.arrayPush(ZUValue());  // an empty array even without roots
  values.arrayPopFront();
  for (const auto& r : roots_) values.arrayPush(r->ownersGet());
  return values;
}

ZUValue ZUManager::snapshotValue() const { return ZU::snapshotValue(roots_); }

std::string ZUManager::snapshotJson() const {
  return zujson::snapshotJson(takeSnapshot(roots_), start_).dump();
}

ZUExplanation ZUManager::explain(const std::string& owner, const std::string& resource,
                                 const std::vector<std::string>& noWait) const {
  requireResource(resource, "explain");
  boost::shared_ptr<ZUOwner> object;
  {
    ZUMutexLock lock(mutex_);
    object = newObject(ownerLocked(owner, "explain"));
  }
  return ZU::explain(resources_.at(resource), object, noWait);
}

}  // namespace ZU
