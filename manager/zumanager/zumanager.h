#pragma once

// The manager: the robot's resources and broker, the modules (a client
// session, a simulated behaviour) with their owners, and the requests they
// make. The simulator's stage and the service both drive it.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zuhost/zubroker.h>
#include <zuhost/zuerror.h>
#include <zuhost/zumutex.h>
#include <zuhost/zuthreadannotations.h>
#include <zuhost/zuvalue.h>

#include <zuresource/zuobserver.h>
#include <zuresource/zuowner.h>
#include <zuresource/zuresource.h>
#include <zuresource/zuresourcestate.h>

#include <zumanager/zuresourcetree.h>

namespace ZU {

struct ZUExplanation;

/// A request of a front end that the manager refuses. The code tells the
/// front end how to answer (the service maps it to a status); the
/// description says why in words. Nothing changed when it is thrown.
///
/// Thread safety: immutable.
class ZUManagerError : public ZUError {
 public:
  enum class Code {
    EmptyName,        ///< an owner, module or resource name is empty
    UnknownResource,  ///< no resource of that name
    UnknownOwner,     ///< no owner of that name
    UnknownModule,    ///< no open module of that name
    ModuleExists,     ///< a module of that name is open already
    OtherModule,      ///< the owner belongs to another module
    NotAState,        ///< setState/releaseState on a resource that is no state resource
    BadArgument,      ///< any other argument out of range
    Unauthenticated,  ///< the caller is not known (ZURights)
    PermissionDenied  ///< beyond the caller's rights (ZURights)
  };
  ZUManagerError(Code code, const std::string& method, const std::string& description);
  Code code() const { return code_; }

 private:
  Code code_;
};

/// What a module is told by the manager.
struct ZUNotice {
  enum class Kind {
    Wanted,  ///< another owner asks for `resource`, which `owner` holds
    Lost     ///< `owner` no longer holds `resource`: `by` took it, for `reason`
  };
  Kind kind = Kind::Wanted;
  /// The plain or state resource concerned (a member, never a group).
  std::string resource;
  /// Wanted: the module's owner that holds it when the notice is made; empty
  /// when none of the module's owners holds it any more. Lost: the owner that
  /// lost it.
  std::string owner;
  /// Lost: the owner that took it, or the operator that released it.
  std::string by;
  /// Lost: why, in words.
  std::string reason;
};

/// The manager's policies for one resource.
struct ZUResourcePolicy {
  /// The default grace period, in ms.
  static constexpr int kDefaultGraceMs = 500;
  /// The longest grace period accepted (one hour).
  static constexpr int kMaxGraceMs = 3600 * 1000;
  /// How long a holder of lower priority keeps the resource once a request of
  /// higher priority waits behind it, before the manager takes it.
  int graceMs = kDefaultGraceMs;
  /// The owner that holds the resource whenever nobody else does, and yields
  /// it at once to any request; empty for none.
  std::string fallback;
};

/// Makes a fleet resource of a tree (the fleet layer is above the manager's
/// reach); see buildResources.
using ZUFleetFactory = std::function<boost::shared_ptr<ZUResource>(const ZUTreeResource&)>;

/// The library's resources of `tree`, one robot's: groups filled in member
/// order, state resources activated as declared. Returns the roots (the
/// resources that are no group's member) in declaration order. A fleet
/// resource is made by `fleet`; without one it is refused (ZUManagerError
/// BadArgument).
std::vector<boost::shared_ptr<ZUResource>> buildResources(const ZUResourceTree& tree,
                                                          const ZUFleetFactory& fleet = {});

/// Called in the module's own task thread, one notice at a time and in order,
/// with no lock of the manager held.
using ZUNoticeHandler = std::function<void(const ZUNotice&)>;

/// One request for a resource.
struct ZUAcquireRequest {
  std::string owner;
  std::string resource;
  /// Seconds; negative for no limit.
  int timeoutSeconds = -1;
  /// Resources that the request gives up on at once when they are busy.
  std::vector<std::string> noWait;
  /// This request's priority; the owner's when not given.
  std::optional<int> priority = std::nullopt;
};

/// A wait of a request: behind `holder` (of `holderModule`) for `resource`.
struct ZUWaitReport {
  std::string resource;
  std::string holder;
  std::string holderModule;
};

/// How a request ended.
struct ZUAcquireResult {
  enum class Kind {
    Granted,      ///< the owner holds the resource
    NotObtained,  ///< busy members on the no-wait list: `notObtained` names them
    Failed        ///< `error` is the library's text ("box stop while waiting", ...)
  };
  /// Why a request that failed was stopped, when the manager stopped it.
  enum class Stop {
    None,        ///< not stopped by the manager (a time limit, or the library's own error)
    Cancelled,   ///< its ZUAcquireCancel was cancelled
    ModuleClosed ///< its module was closed while it waited
  };
  Kind kind = Kind::Granted;
  std::vector<std::string> notObtained;
  std::string error;
  Stop stop = Stop::None;
};

/// Stops one request from another thread: the request ends within one
/// polling period, failing with "box stop while waiting"; the owner is left
/// holding nothing that it did not hold when the request began. A cancel
/// before the request starts makes it fail at once. One token serves one
/// request at a time.
///
/// Thread safety: thread safe; cancel() may be called from any thread, any
/// number of times.
class ZUAcquireCancel {
 public:
  /// Takes: the token's mutex.
  void cancel();
  /// Atomic read.
  bool cancelled() const { return cancelled_.load(); }

 private:
  friend class ZUManager;
  /// Attaches the request's owner; false when the token was already
  /// cancelled. Takes: the token's mutex.
  bool attach(const boost::shared_ptr<ZUOwner>& object);
  /// Takes: the token's mutex.
  void detach();

  ZUMutex mutex_;
  /// The owner of the request in progress.
  boost::shared_ptr<ZUOwner> object_ ZU_GUARDED_BY(mutex_);
  /// Atomic; set once, never cleared.
  std::atomic<bool> cancelled_{false};
};

/// Holds the robot's resources and a broker, opens and closes modules, makes
/// owners inside them and runs their requests. Each request gets an owner
/// object of its own, named after its owner: its release flag is fresh, so a
/// release before it never makes it fail, and a cancel stops that request
/// alone. Holdings are told apart by name, as the library does.
///
/// Thread safety: thread safe. One mutex (`mutex_`) guards the modules and
/// owners; it is never held while the library waits, nor while a module, an
/// observer or a front end's callback runs. Lock order: mutex_, then the
/// library's locks (reading holders); a cancel token's mutex is a leaf.
class ZUManager {
 public:
  /// The longest module or owner name, in bytes.
  static constexpr std::size_t kMaxNameLength = 1024;

  /// Manages the trees `roots` (groups with their members; each resource
  /// name once). Throws ZUManagerError for an empty handle or a name used
  /// twice.
  /// `policies` by resource name: a group's apply to each of its members
  /// that has none of its own. Throws ZUManagerError (BadArgument) for an
  /// unknown name, a grace period out of [0, kMaxGraceMs], or a fallback for
  /// a state resource.
  explicit ZUManager(const std::vector<boost::shared_ptr<ZUResource>>& roots,
                     const std::map<std::string, ZUResourcePolicy>& policies = {});
  /// Manages the resources of `tree` (buildResources) with the policies it
  /// declares (policiesOf).
  explicit ZUManager(const ZUResourceTree& tree, const ZUFleetFactory& fleet = {});
  /// The policies `tree` declares: a grace period or a fallback owner given
  /// to a resource (by its library name).
  static std::map<std::string, ZUResourcePolicy> policiesOf(const ZUResourceTree& tree);
  /// Closes every module (their requests stop, their holdings are released).
  ~ZUManager();
  ZUManager(const ZUManager&) = delete;
  ZUManager& operator=(const ZUManager&) = delete;

  // --- Modules and owners. ------------------------------------------------

  /// Opens module `name`; `onNotice` receives its notices. Throws
  /// ZUManagerError (EmptyName, ModuleExists; BadArgument for a name over
  /// kMaxNameLength or "emptyOwner"). Takes: mutex_.
  void openModule(const std::string& name, ZUNoticeHandler onNotice);
  /// Closes module `name` as the manager stops a box: every request of its
  /// owners ends with "box stop while waiting" (stop ModuleClosed), then
  /// everything its owners hold is released (a resource handed down to one
  /// of them goes back to the owner that handed it down), so that the owners
  /// waiting behind are served; its owners' names become free. Returns once
  /// its requests have ended (within about one polling period) and no notice
  /// of it runs (unless called from its own notice). Nothing for an unknown
  /// module. Takes: mutex_, let go while it waits and releases.
  void closeModule(const std::string& name);
  /// Whether module `name` is open. Takes: mutex_.
  bool hasModule(const std::string& name) const;
  /// Makes owner `owner` in module `module`; again in the same module sets its
  /// priority. Names are the library's (hierarchical by prefix: "box/arm" is
  /// a descendant of "box"). Throws ZUManagerError (EmptyName, UnknownModule,
  /// OtherModule; BadArgument for a name over kMaxNameLength, "emptyOwner" or
  /// a resource's name). Takes: mutex_.
  void makeOwner(const std::string& module, const std::string& owner, int priority = 0);
  /// The module of `owner`, or empty. Takes: mutex_.
  std::string moduleOf(const std::string& owner) const;

  // --- Requests. ----------------------------------------------------------

  /// Called from inside a request's wait, in the requesting thread, each
  /// time it starts waiting behind a holder. It runs inside the library's
  /// wait (see ZUObserver): it must be quick, must not wait for that resource
  /// and must close no module (closing waits for requests to end).
  using WaitHandler = std::function<void(const ZUWaitReport&)>;

  /// Runs `request` in the calling thread, blocking until it is granted, not
  /// obtained or failed. Throws ZUManagerError (EmptyName, UnknownOwner,
  /// UnknownResource, UnknownModule for a closing module) before anything
  /// changes. `cancel`, when given, stops it from another thread.
  /// Takes: mutex_ to start and to end it, none while it waits.
  ZUAcquireResult acquire(const ZUAcquireRequest& request, const WaitHandler& onWait = WaitHandler(),
                          ZUAcquireCancel* cancel = nullptr);
  /// Gives back what `owner` holds of `resource` (each member it holds; a
  /// member handed down to it goes back to the owner that handed it down).
  /// A member it does not hold is left alone; a request of it in progress
  /// goes on (cancel it to stop it). Throws ZUManagerError (EmptyName,
  /// UnknownOwner, UnknownResource). Takes: mutex_, then the resources' locks.
  void release(const std::string& owner, const std::string& resource);
  /// An operator (`by`) takes `resource` from `owner` at once: each member
  /// it holds is released for it, its module gets a lost notice naming the
  /// operator, and observers a Lost event. Returns the members released.
  /// Errors as release(). Takes: mutex_, then the resources' locks.
  std::vector<std::string> forceRelease(const std::string& by, const std::string& owner,
                                        const std::string& resource);
  /// Makes `owner` the holder of `resource` unconditionally (the library's
  /// switchOwner; nobody is told). Errors as release(). Takes: mutex_.
  void switchOwner(const std::string& owner, const std::string& resource);
  /// Activates or deactivates the state resource `resource`. Throws
  /// ZUManagerError (UnknownResource, NotAState). Takes: the state's locks.
  void setState(const std::string& resource, bool activated);
  /// Deactivates `resource` and tells its holders; the library's ZUError
  /// (a holder that did not let go within one polling period) passes on.
  /// Throws ZUManagerError as setState.
  void releaseState(const std::string& resource);

  // --- Reads. -------------------------------------------------------------

  /// Whether a resource of that name exists. No lock (immutable).
  bool hasResource(const std::string& name) const;
  /// The trees, in the order given.
  const std::vector<boost::shared_ptr<ZUResource>>& roots() const { return roots_; }
  /// The resource named `name`. Throws ZUManagerError (UnknownResource).
  boost::shared_ptr<ZUResource> resource(const std::string& name) const;
  /// The plain and state resources inside `name` (itself when it is one), in
  /// member order, each once. Throws ZUManagerError (UnknownResource).
  std::vector<std::string> leavesOf(const std::string& name) const;
  /// The names of the holders of a plain or state member ("emptyOwner" for
  /// a free plain resource; none for a state without holders).
  std::vector<std::string> holdersOf(const std::string& leaf) const;
  /// The status text: every root's status line (httpGet(0)), joined.
  std::string statusText() const;
  /// The status values: every root's ownersGet(), as one array.
  ZUValue statusValues() const;
  /// The snapshot of every tree, as the library's ZUSnapshot::toValue().
  ZUValue snapshotValue() const;
  /// The snapshot in the recorder's JSON form (one "snapshot" line, times
  /// counted from the manager's start).
  std::string snapshotJson() const;
  /// When the manager was made: the origin of the times of its JSON forms.
  std::chrono::steady_clock::time_point start() const { return start_; }
  /// What a request of `owner` for `resource` would do now, as a value
  /// (toValue()) and in words (toString()); no side effect. Throws
  /// ZUManagerError (EmptyName, UnknownOwner, UnknownResource). Takes: mutex_
  /// briefly.
  ZUExplanation explain(const std::string& owner, const std::string& resource,
                        const std::vector<std::string>& noWait = std::vector<std::string>()) const;
  /// The broker of the manager's modules.
  const boost::shared_ptr<ZUBroker>& broker() const { return broker_; }

 private:
  struct Request;
  struct Take;
  struct Ranked;
  struct Outlet;
  struct Owner;
  struct Module;
  class Listener;

  /// acquire(); a `fallback` request is the manager's own for a fallback
  /// owner (lowest priority, yields at once).
  ZUAcquireResult acquireAs(const ZUAcquireRequest& request, const WaitHandler& onWait,
                            ZUAcquireCancel* cancel, bool fallback);
  /// The known owner `name`, or throws (EmptyName, UnknownOwner). Requires mutex_.
  Owner& ownerLocked(const std::string& name, const char* method) ZU_REQUIRES(mutex_);
  const Owner& ownerLocked(const std::string& name, const char* method) const
      ZU_REQUIRES(mutex_);
  /// Checks `name` names a resource, or throws (EmptyName, UnknownResource).
  void requireResource(const std::string& name, const char* method) const;
  /// Checks `name` may name a module or owner (`kind`, `aKind` with its
  /// article), or throws (EmptyName; BadArgument for a name over
  /// kMaxNameLength or a free resource's holder's).
  static void requireName(const std::string& name, const char* method, const char* kind,
                          const char* aKind);
  /// The state resource `resource`, or throws (EmptyName, UnknownResource,
  /// NotAState).
  ZUResourceState& requireState(const std::string& resource, const char* method) const;
  /// The objects holding `leaf` now: a state's holders, or the current owner
  /// of a plain resource (the free holder when nobody holds it).
  std::vector<boost::shared_ptr<ZUOwner>> holderObjects(const std::string& leaf) const;
  /// A new owner object of `owner`, not kept anywhere yet.
  boost::shared_ptr<ZUOwner> newObject(const Owner& owner) const;
  /// The objects of `owner`'s name that hold leaves of `resource` now, with
  /// the leaf each holds (the object a member is released with decides where
  /// it goes back). No lock of ours.
  std::vector<std::pair<std::string, boost::shared_ptr<ZUOwner>>> heldLeaves(
      const std::string& owner, const std::string& resource) const;
  /// Releases each leaf with the object that holds it. No lock of ours.
  static void releaseHeld(
      const std::vector<std::pair<std::string, boost::shared_ptr<ZUOwner>>>& held,
      const std::unordered_map<std::string, boost::shared_ptr<ZUResource>>& resources);
  /// Whether `object` holds any leaf now.
  bool holdsAny(const ZUOwner* object) const;
  /// Whether an owner named below `name` waits or holds now. Requires mutex_.
  bool descendantBusyLocked(const std::string& name) const ZU_REQUIRES(mutex_);
  /// Drops the objects of `name` and of its ancestors that no request uses,
  /// hold nothing and can no more be given anything back. Requires mutex_.
  void pruneLocked(const std::string& name) ZU_REQUIRES(mutex_);
  /// Delivers "__onResource__" for `leaf` to module `module`'s handler. Runs
  /// in the module's task thread. Takes: mutex_ briefly.
  void onResource(const std::shared_ptr<Outlet>& outlet, const std::string& leaf);
  /// A request of this manager (of `priority`, by `requester`) began waiting
  /// (in its own thread, inside the library's wait): schedules a take when a
  /// policy says so. Takes: policyMutex_.
  void onWaiting(const ZUEvent& event, int priority, const boost::shared_ptr<ZUOwner>& requester);
  /// Records the priority of an owner object. Takes: policyMutex_.
  void rank(const boost::shared_ptr<ZUOwner>& object, int priority, bool fallback);
  /// The policy thread: takes resources from holders whose grace ran out, and
  /// gives free resources to their fallback owners.
  void policyLoop();
  /// Carries out `take` if its holder still holds and its requester still
  /// waits. No lock of ours held.
  void perform(const Take& take);
  /// Gives each free resource that has a fallback owner to that owner.
  void fallbackPass(std::map<std::string, std::chrono::steady_clock::time_point>& freeSince);
  /// Releases `leaf` for `holder` and tells: the holder's module a lost
  /// notice, observers a Lost event. No lock of ours held.
  void takeFrom(const std::string& leaf, const boost::shared_ptr<ZUOwner>& holder,
                const std::string& by, const std::string& byModule, const std::string& reason);
  /// Queues `notice` for module `module`'s handler, after its other notices.
  /// Takes: mutex_, then the outlet's mutex.
  void tell(const std::string& module, const ZUNotice& notice);
  /// Delivers the oldest queued notice of `outlet`. Runs in its task thread.
  static void deliverQueued(const std::shared_ptr<Outlet>& outlet);
  /// Calls the handler of `outlet` with `notice`, if it is still open.
  static void deliver(Outlet& outlet, const ZUNotice& notice);
  /// Takes off the broker the closed modules that lingered long enough, and
  /// returns them to be dropped once mutex_ is let go. Requires mutex_.
  std::vector<boost::shared_ptr<ZUModule>> purgeClosedLocked() ZU_REQUIRES(mutex_);

  /// How long a closed module stays on the broker (see closeModule).
  static constexpr std::chrono::seconds kClosedModuleLinger{5};
  struct Closed {
    std::string name;
    boost::shared_ptr<ZUModule> module;
    std::chrono::steady_clock::time_point when;
  };

  // Immutable after construction.
  const std::chrono::steady_clock::time_point start_;
  const boost::shared_ptr<ZUBroker> broker_;
  std::vector<boost::shared_ptr<ZUResource>> roots_;
  std::unordered_map<std::string, boost::shared_ptr<ZUResource>> resources_;
  std::unordered_map<std::string, std::vector<std::string>> leaves_;  // resource -> its leaves
  std::vector<std::string> leafOrder_;  // every plain and state member, once
  std::unordered_map<std::string, ZUResourcePolicy> policy_;  // by leaf
  boost::shared_ptr<Listener> listener_;

  mutable ZUMutex mutex_;
  /// Signalled (under mutex_) whenever a request ends or a module is gone.
  std::condition_variable requestEnded_;
  /// By name. The records' own fields are guarded by mutex_ too.
  std::map<std::string, std::shared_ptr<Module>> modules_ ZU_GUARDED_BY(mutex_);
  /// By name, sorted: an owner's descendants follow it.
  std::map<std::string, std::unique_ptr<Owner>, std::less<>> owners_ ZU_GUARDED_BY(mutex_);
  /// Closed modules still on the broker, oldest first.
  std::deque<Closed> closed_ ZU_GUARDED_BY(mutex_);

  /// Guards the policy thread's work; taken inside the library's waits (by
  /// onWaiting), so it is a leaf: no other lock is taken under it.
  ZUMutex policyMutex_;
  /// Signalled under policyMutex_ when a take is scheduled or the thread stops.
  std::condition_variable policyChanged_;
  std::vector<Take> takes_ ZU_GUARDED_BY(policyMutex_);
  /// Owner objects' priorities, by address (checked against the weak handle).
  std::unordered_map<const ZUOwner*, Ranked> ranks_ ZU_GUARDED_BY(policyMutex_);
  std::size_t ranksSwept_ ZU_GUARDED_BY(policyMutex_) = 0;  // ranks_'s size after the last sweep
  bool stopping_ ZU_GUARDED_BY(policyMutex_) = false;
  /// Started last in the constructor, joined first in the destructor.
  std::thread policyThread_;
};

}  // namespace ZU
