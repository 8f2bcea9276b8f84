#include "run/stage.h"

#include <unistd.h>

#include <chrono>

#include <boost/make_shared.hpp>

#include <zuhost/zumutex.h>

#include <zuresource/zuresourcelist.h>

#include <zufleet/zuresourcefleet.h>

namespace zusim {

namespace {

/// Where this run's fleet keys live: a run never meets another's, even on one etcd.
std::string runPrefix() {
  return "/zuresource-sim/" + std::to_string(getpid()) + "-" +
         std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()) + "/";
}

}  // namespace

Stage::Stage(const Scenario& scenario, OnResource onResource, const std::vector<std::string>& etcd)
    : scenario_(scenario) {
  for (const ActionEntry& a : scenario.actions)
    if (a.kind == ActionKind::EtcdDown && !etcd.empty())
      throw ScenarioError(scenario.file + ": " + a.entry +
                          ": \"restartEtcd\" needs the simulator's own etcd, not --etcd");
  std::vector<std::string> endpoints = etcd;
  if (scenario.hasFleet() && endpoints.empty()) {
    etcd_ = std::make_unique<ZU::ZUEtcdServer>();
    endpoints = etcd_->endpoints();
  }
  const std::string prefix = runPrefix();
  sessions_.resize(scenario.robots.size());
  relays_.resize(scenario.robots.size());
  for (const ActionEntry& a : scenario.actions)
    if ((a.kind == ActionKind::CutOff || a.kind == ActionKind::Kill) && relays_[a.robot].empty())
      for (const std::string& endpoint : endpoints)
        relays_[a.robot].push_back(std::make_unique<ZU::ZUTcpRelay>(endpoint));
  for (std::size_t i = 0; i < std::max<std::size_t>(1, scenario.robots.size()); ++i)
    brokers_.push_back(boost::make_shared<ZU::ZUBroker>());
  for (const ResourceEntry& r : scenario.resources) {
    if (!r.fleet || sessions_[r.robot]) continue;
    ZU::ZUFleetConfig config;
    config.endpoints = endpoints;
    if (!relays_[r.robot].empty()) {
      config.endpoints.clear();
      for (const auto& relay : relays_[r.robot]) config.endpoints.push_back(relay->endpoint());
    }
    config.robot = scenario.robots[r.robot].name;
    config.ttlSeconds = static_cast<int>(scenario.robots[r.robot].ttlSeconds);
    config.prefix = prefix;
    sessions_[r.robot] = boost::make_shared<ZU::ZUFleetSession>(config);
  }
  for (const ResourceEntry& r : scenario.resources) {
    boost::shared_ptr<ZU::ZUResource> made;
    if (r.fleet)
      made = ZU::ZUResourceFleet::create(r.libraryName, nullptr, sessions_[r.robot]);
    else if (r.kind == ResourceKind::Plain)
      made = boost::make_shared<ZU::ZUResource>(r.name, nullptr);
    if (r.kind == ResourceKind::State)
      made = boost::make_shared<ZU::ZUResourceState>(r.name, nullptr);
    if (r.kind == ResourceKind::Group)
      made = boost::make_shared<ZU::ZUResourceList>(r.name, nullptr);
    resources_[r.name] = made;
  }
  for (const ResourceEntry& r : scenario.resources) {
    for (const std::string& m : r.members) resources_.at(r.name)->addResource(resources_.at(m));
    if (r.activated) stateResource(r.name)->setState(true);
  }
  for (const std::string& r : scenario.roots()) {
    roots_.push_back(resources_.at(r));
    rootRobots_.push_back(scenario.findResource(r)->robot);
  }
  for (std::size_t i = 0; i < scenario.modules.size(); ++i) {
    const ModuleEntry& m = scenario.modules[i];
    modules_.push_back({&m, boost::make_shared<ZU::ZUModule>(m.name)});
    modules_.back().module->bindMethod<std::string>(
        "__onResource__", [onResource, i](const std::string& name) { onResource(i, name); });
    brokers_[std::max(m.robot, 0)]->addModule(modules_.back().module);
  }
  for (const OwnerEntry& o : scenario.owners) {
    ownerByName_[o.name] = static_cast<int>(owners_.size());
    owners_.push_back({&o, ZU::ZUResource::createOwner(0, o.name, o.module, nullptr)});
    owners_.back().owner->setParentBroker(brokers_[std::max(o.robot, 0)]);
    ownerByHandle_[owners_.back().owner.get()] = ownerByName_[o.name];
  }
}

Stage::~Stage() {
  for (Module& m : modules_) {
    brokers_[std::max(m.entry->robot, 0)]->removeModule(m.entry->name);
    m.module.reset();
  }
}

int Stage::ownerNumber(const std::string& name) const {
  auto it = ownerByName_.find(name);
  return it == ownerByName_.end() ? -1 : it->second;
}

int Stage::ownerNumber(const boost::shared_ptr<ZU::ZUOwner>& owner) const {
  auto it = ownerByHandle_.find(owner.get());
  return it == ownerByHandle_.end() ? -1 : it->second;
}

boost::shared_ptr<ZU::ZUResource> Stage::resource(const std::string& name) const {
  return resources_.at(name);
}

ZU::ZUResourceState* Stage::stateResource(const std::string& name) const {
  return dynamic_cast<ZU::ZUResourceState*>(resources_.at(name).get());
}

std::string Stage::holderOf(const std::string& name) const {
  return resource(name)->currentOwner.load()->name;
}

std::vector<std::string> Stage::holdersOf(const std::string& name) const {
  ZU::ZUResourceState* state = stateResource(name);
  std::vector<std::string> out;
  ZU::ZUCriticalSection lock(state->holdersMutex);
  for (const auto& h : state->holders) out.push_back(h->name);
  return out;
}

bool Stage::holds(const std::string& leaf, const std::string& owner) const {
  if (!stateResource(leaf)) return holderOf(leaf) == owner;
  for (const std::string& h : holdersOf(leaf))
    if (h == owner) return true;
  return false;
}

std::map<std::string, std::string> Stage::leafHolders(const std::string& name) const {
  std::map<std::string, std::string> out;
  for (const std::string& l : scenario_.leavesOf(name))
    if (!stateResource(l)) out[l] = holderOf(l);
  return out;
}

std::vector<std::string> Stage::statusLines() const {
  std::vector<std::string> lines;
  int robot = -1;
  for (std::size_t i = 0; i < roots_.size(); ++i) {
    const auto& r = roots_[i];
    // Each robot's resources under its name: its fleet resources' own names
    // are those of the other robots' too.
    int of = rootRobots_[i];
    if (of != robot) lines.push_back(scenario_.robots[of].name + ":<br />");
    robot = of;
    lines.push_back(r->httpGet(0));
  }
  return lines;
}

void Stage::waitIdle() const {
  for (const Module& m : modules_) m.module->waitIdle();
}

void Stage::cutOff(int robot, bool on) const {
  for (const auto& relay : relays_[robot])
    relay->setMode(on ? ZU::ZUTcpRelay::Mode::Refuse : ZU::ZUTcpRelay::Mode::Pass);
}

void Stage::etcdDown() { etcd_->kill(0); }

void Stage::etcdUp() { etcd_->start(0); }

}  // namespace zusim
