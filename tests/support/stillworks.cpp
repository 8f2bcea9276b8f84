#include "support/stillworks.h"

#include <zuresource/zuresourcestate.h>

#include "support/resourcehelpers.h"

namespace zutest {

namespace {

bool probeHolds(ZU::ZUResource& resource, const std::string& probeName) {
  if (auto* state = dynamic_cast<ZU::ZUResourceState*>(&resource)) {
    for (const std::string& name : holderNames(*state))
      if (name == probeName) return true;
    return false;
  }
  return resource.isResourceOwned("Probe");
}

}  // namespace

::testing::AssertionResult stillWorks(const boost::shared_ptr<ZU::ZUResource>& resource) {
  auto probe = makeOwner("probe", "Probe");
  std::vector<std::string> notObtained;
  try {
    notObtained = resource->waitFor(probe, "", 0, {});
  } catch (const ZU::ZUError& error) {
    return ::testing::AssertionFailure() << "a new owner cannot acquire it: " << error.toString();
  }
  if (!notObtained.empty())
    return ::testing::AssertionFailure() << "a new owner did not obtain " << notObtained[0];
  if (!probeHolds(*resource, probe->name))
    return ::testing::AssertionFailure() << "acquired but not held: " << resource->httpGet(0);
  resource->release(probe);
  if (probeHolds(*resource, probe->name) ||
      (!dynamic_cast<ZU::ZUResourceState*>(resource.get()) && !resource->isResourceFree()))
    return ::testing::AssertionFailure() << "not given back: " << resource->httpGet(0);
  return ::testing::AssertionSuccess();
}

}  // namespace zutest
