#pragma once

#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <gtest/gtest.h>

#include "support/resourcehelpers.h"

namespace zutest {

/// Whether `resource` still serves a new owner after bad input: a fresh owner
/// ("probe", module "Probe") acquires it with timeout 0, holds it (for a state
/// resource, which must be activated: stands among its holders), releases it,
/// and then holds nothing of it (a plain resource or a group is free again).
inline ::testing::AssertionResult stillWorks(const boost::shared_ptr<ZU::ZUResource>& resource) {
  auto* state = dynamic_cast<ZU::ZUResourceState*>(resource.get());
  auto held = [&] {
    if (!state) return resource->isResourceOwned("Probe");
    for (const std::string& name : holderNames(*state))
      if (name == "probe") return true;
    return false;
  };
  auto probe = makeOwner("probe", "Probe");
  std::vector<std::string> missed;
  if (auto error = errorOf([&] { missed = resource->waitFor(probe, "", 0, {}); }))
    return ::testing::AssertionFailure() << "a new owner cannot acquire it: " << error->toString();
  if (!missed.empty()) return ::testing::AssertionFailure() << "not obtained: " << missed[0];
  if (!held()) return ::testing::AssertionFailure() << "not held: " << resource->httpGet(0);
  resource->release(probe);
  if (held() || (!state && !resource->isResourceFree()))
    return ::testing::AssertionFailure() << "not given back: " << resource->httpGet(0);
  return ::testing::AssertionSuccess();
}

}  // namespace zutest
