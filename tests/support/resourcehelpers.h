#pragma once

#include <chrono>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <zuhost/zuerror.h>

#include <zuresource/zuresourcelist.h>
#include <zuresource/zuresourcestate.h>

namespace zutest {

/// The ZUError that `action` throws, or nothing when it throws none.
inline std::optional<ZU::ZUError> errorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const ZU::ZUError& error) {
    return error;
  }
  return std::nullopt;
}

/// Polls `condition` every 5 ms; false when it still fails after `ms`.
inline bool waitUntil(const std::function<bool()>& condition, int ms = 5000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

/// A strong owner from the factory, with no broker.
inline boost::shared_ptr<ZU::ZUOwner> makeOwner(const std::string& name,
                                                const std::string& moduleName) {
  return ZU::ZUResource::createOwner(0, name, moduleName, nullptr);
}

/// A plain resource named `name`, with no parent.
inline boost::shared_ptr<ZU::ZUResource> makePlain(const std::string& name) {
  return boost::make_shared<ZU::ZUResource>(name, nullptr);
}

/// A group named `name` holding `members` in that order.
inline boost::shared_ptr<ZU::ZUResourceList> makeGroup(
    const std::string& name, std::initializer_list<boost::shared_ptr<ZU::ZUResource>> members) {
  auto group = boost::make_shared<ZU::ZUResourceList>(name, nullptr);
  for (const auto& member : members) group->addResource(member);
  return group;
}

/// The names of a group's members, in list order.
inline std::vector<std::string> memberNames(ZU::ZUResourceList& group) {
  std::vector<std::string> names;
  for (const auto& member : group.getResourceList()) names.push_back(member->name);
  return names;
}

/// The names of a state resource's holders, in grant order (under holdersMutex).
inline std::vector<std::string> holderNames(ZU::ZUResourceState& resource) {
  ZU::ZUCriticalSection lock(resource.holdersMutex);
  std::vector<std::string> names;
  for (const auto& holder : resource.holders) names.push_back(holder->name);
  return names;
}

}  // namespace zutest
