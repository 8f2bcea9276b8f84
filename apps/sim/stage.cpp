#include "stage.h"

#include <boost/make_shared.hpp>

#include <zuhost/zumutex.h>

#include <zuresource/zuresourcelist.h>

namespace zusim {

Stage::Stage(const Scenario& scenario, OnResource onResource)
    : scenario_(scenario), broker_(boost::make_shared<ZU::ZUBroker>()) {
  for (const ResourceEntry& r : scenario.resources) {
    boost::shared_ptr<ZU::ZUResource> made;
    if (r.kind == ResourceKind::Plain) made = boost::make_shared<ZU::ZUResource>(r.name, nullptr);
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
  for (const std::string& r : scenario.roots()) roots_.push_back(resources_.at(r));
  for (std::size_t i = 0; i < scenario.modules.size(); ++i) {
    const ModuleEntry& m = scenario.modules[i];
    modules_.push_back({&m, boost::make_shared<ZU::ZUModule>(m.name)});
    modules_.back().module->bindMethod<std::string>(
        "__onResource__", [onResource, i](const std::string& name) { onResource(i, name); });
    broker_->addModule(modules_.back().module);
  }
  for (const OwnerEntry& o : scenario.owners) {
    ownerByName_[o.name] = static_cast<int>(owners_.size());
    owners_.push_back({&o, ZU::ZUResource::createOwner(0, o.name, o.module, nullptr)});
    owners_.back().owner->setParentBroker(broker_);
    ownerByHandle_[owners_.back().owner.get()] = ownerByName_[o.name];
  }
}

Stage::~Stage() {
  for (Module& m : modules_) {
    broker_->removeModule(m.entry->name);
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
  for (const auto& r : roots_) lines.push_back(r->httpGet(0));
  return lines;
}

void Stage::waitIdle() const {
  for (const Module& m : modules_) m.module->waitIdle();
}

}  // namespace zusim
