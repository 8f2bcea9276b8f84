#pragma once

// The stage of a run: the library's resources, the broker, its modules and
// the owners, built from a scenario.

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zuhost/zubroker.h>

#include <zuresource/zuresource.h>
#include <zuresource/zuresourcestate.h>

#include <zufleet/zufleetsession.h>
#include <zufleettesting/zuetcdserver.h>
#include <zufleettesting/zutcprelay.h>

#include "scenario/scenario.h"

namespace zusim {

/// Builds a scenario's resources (groups filled in member order, state
/// resources activated as declared), one host module per module entry and
/// one owner per owner entry, all attached to one broker per robot. Each
/// robot with fleet resources joins the fleet with a session of its own, on
/// the etcd given or, when none is, on one the stage starts and ends.
///
/// Thread safety: immutable after construction; the queries may be called
/// from any thread and take only the library's locks of what they read.
/// cutOff() may be called from any thread; etcdDown() and etcdUp() from one
/// thread at a time.
class Stage {
 public:
  /// Called, in the module's task thread, when module number `module` is told
  /// "__onResource__" for `resource`.
  using OnResource = std::function<void(std::size_t module, const std::string& resource)>;

  struct Owner {
    const OwnerEntry* entry;
    boost::shared_ptr<ZU::ZUOwner> owner;
  };
  struct Module {
    const ModuleEntry* entry;
    boost::shared_ptr<ZU::ZUModule> module;
  };

  /// `scenario` must outlive the stage. `etcd`: the client URLs of the
  /// fleet's etcd; empty, a local one is started when the scenario has fleet
  /// resources. Throws ZUError when that etcd cannot start, ScenarioError
  /// when the scenario restarts etcd and `etcd` is given.
  Stage(const Scenario& scenario, OnResource onResource, const std::vector<std::string>& etcd = {});
  /// Takes the modules off the broker first: their methods call back.
  ~Stage();
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  const Scenario& scenario() const { return scenario_; }
  const std::vector<Owner>& owners() const { return owners_; }
  const std::vector<Module>& modules() const { return modules_; }
  /// The trees of resources that are no group's member.
  const std::vector<boost::shared_ptr<ZU::ZUResource>>& roots() const { return roots_; }

  /// The number of the owner named `name`, or -1.
  int ownerNumber(const std::string& name) const;
  /// The number of the owner that is `owner`, or -1 (an owner of another run).
  int ownerNumber(const boost::shared_ptr<ZU::ZUOwner>& owner) const;
  bool hasResource(const std::string& name) const { return resources_.count(name) != 0; }
  boost::shared_ptr<ZU::ZUResource> resource(const std::string& name) const;
  /// The state resource named `name`, or null when it is not one.
  ZU::ZUResourceState* stateResource(const std::string& name) const;

  /// The name of a plain resource's holder ("emptyOwner" when free). Its
  /// currentOwner, atomically.
  std::string holderOf(const std::string& resource) const;
  /// The names of a state resource's holders, in the order they were
  /// granted. Its holdersMutex.
  std::vector<std::string> holdersOf(const std::string& resource) const;
  /// Whether `owner` holds `leaf` (a plain or state resource) now.
  bool holds(const std::string& leaf, const std::string& owner) const;
  /// The plain leaves of `resource` -> their holders' names.
  std::map<std::string, std::string> leafHolders(const std::string& resource) const;
  /// Each root resource's httpGet(0).
  std::vector<std::string> statusLines() const;
  /// Waits until no module is running a method.
  void waitIdle() const;

  /// Cuts robot number `robot` off from etcd, or connects it again; nothing
  /// for a robot without fleet resources.
  void cutOff(int robot, bool on) const;
  /// Kills the stage's own etcd, or starts it again with its data.
  void etcdDown();
  void etcdUp();

 private:
  const Scenario& scenario_;
  std::unique_ptr<ZU::ZUEtcdServer> etcd_;  // the stage's own etcd, if it started one
  /// By robot number: the relays between a robot that is cut off or killed
  /// and etcd (one per endpoint), which refuse its traffic while it is cut off.
  /// They outlive the sessions.
  std::vector<std::vector<std::unique_ptr<ZU::ZUTcpRelay>>> relays_;
  /// By robot number; null for a robot without fleet resources.
  std::vector<boost::shared_ptr<ZU::ZUFleetSession>> sessions_;
  std::vector<boost::shared_ptr<ZU::ZUBroker>> brokers_;  // by robot number (one without robots)
  std::unordered_map<std::string, boost::shared_ptr<ZU::ZUResource>> resources_;
  std::vector<boost::shared_ptr<ZU::ZUResource>> roots_;
  std::vector<int> rootRobots_;  // by root: its robot's number
  std::vector<Module> modules_;
  std::vector<Owner> owners_;
  std::unordered_map<std::string, int> ownerByName_;
  std::unordered_map<const ZU::ZUOwner*, int> ownerByHandle_;
};

}  // namespace zusim
