#include "support/scriptedowner.h"

#include <boost/make_shared.hpp>

#include <zuhost/zuerror.h>
#include <zuhost/zumutex.h>

namespace zutest {

ScriptedOwner::Script ScriptedOwner::decline() {
  return [](const std::string&, const boost::shared_ptr<ZU::ZUOwner>&) { return false; };
}

ScriptedOwner::Script ScriptedOwner::yield() {
  return [](const std::string&, const boost::shared_ptr<ZU::ZUOwner>&) { return true; };
}

ScriptedOwner::Script ScriptedOwner::fail() {
  return [](const std::string&, const boost::shared_ptr<ZU::ZUOwner>&) -> bool {
    throw ZU::ZUError("ScriptedOwner", "conflict", "scripted failure",
                      "tests/support/scriptedowner", __LINE__);
  };
}

boost::shared_ptr<ScriptedOwner> ScriptedOwner::create(const std::string& name,
                                                       const std::string& moduleName,
                                                       Script script) {
  return boost::make_shared<ScriptedOwner>(name, moduleName, std::move(script));
}

ScriptedOwner::ScriptedOwner(const std::string& name, const std::string& moduleName,
                             Script script)
    : script_(std::move(script)) {
  this->name = name;
  this->moduleName = moduleName;
  ownerType = "eScripted";
  ownerMutex = ZU::ZUMutex::createZUMutex();
  conflictMutex = ZU::ZUMutexRW::createZUMutexRW();
  waitersMutex = ZU::ZUMutexRW::createZUMutexRW();
}

ScriptedOwner::~ScriptedOwner() { ZU::ZUCriticalSectionWrite waitForConflicts(conflictMutex); }

bool ScriptedOwner::conflict(const std::string& resourceName,
                             boost::shared_ptr<ZU::ZUOwner> requester, int /*timeout*/) {
  ZU::ZUCriticalSectionRead running(conflictMutex);
  ++conflicts_;
  return script_(resourceName, requester);
}

void ScriptedOwner::freeResource() {
  ++frees_;
  resourceFreed = true;
}

}  // namespace zutest
