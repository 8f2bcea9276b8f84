#pragma once

#include <cstddef>

namespace zubench {

/// What a piece of code allocated with the global operator new.
struct AllocationCount {
  std::size_t calls = 0;
  std::size_t bytes = 0;  // as requested, without the allocator's own overhead
};

/// Counts the global operator new calls made while counting is on. The
/// program replaces operator new/delete for this; counting is off by default
/// and costs one relaxed load per allocation then.
///
/// Thread safety: start and stop from one thread while no other thread
/// allocates; the counters are atomic, so stray allocations are still counted.
void startCounting();
AllocationCount stopCounting();

}  // namespace zubench
