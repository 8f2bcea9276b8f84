#pragma once

#include "allocationcounter.h"

namespace zubench {

/// What constructing one object of each kind allocates (the object kept
/// alive while counting, so the counts are what it holds).
struct MemoryFootprint {
  AllocationCount plainResource, stateResource, emptyGroup, strongOwner;
};

MemoryFootprint measureFootprints();

}  // namespace zubench
