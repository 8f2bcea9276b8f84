#include "memory.h"

#include <boost/make_shared.hpp>

#include <zuresource/zuresourcelist.h>
#include <zuresource/zuresourcestate.h>

#include "benchsupport.h"

namespace zubench {

namespace {

/// Allocations made by `make`, whose result is dropped only after counting.
template <typename Make>
AllocationCount footprintOf(Make make) {
  startCounting();
  auto object = make();
  AllocationCount count = stopCounting();
  return count;
}

}  // namespace

MemoryFootprint measureFootprints() {
  const boost::shared_ptr<ZU::ZUResource> noParent;
  const std::string name = "Head";  // fits the strings' inline buffer, as most do
  MemoryFootprint footprint;
  footprint.plainResource =
      footprintOf([&] { return boost::make_shared<ZU::ZUResource>(name, noParent); });
  footprint.stateResource =
      footprintOf([&] { return boost::make_shared<ZU::ZUResourceState>(name, noParent); });
  footprint.emptyGroup =
      footprintOf([&] { return boost::make_shared<ZU::ZUResourceList>(name, noParent); });
  footprint.strongOwner = footprintOf([&] {
    return ZU::ZUResource::createOwner(0, "box/a", "Walker",
                                       boost::shared_ptr<ZU::ZUHierarchyOwner>());
  });
  return footprint;
}

}  // namespace zubench
