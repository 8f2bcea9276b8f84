#include "allocationcounter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace zubench {

namespace {
std::atomic<bool> counting{false};
std::atomic<std::size_t> countedCalls{0};
std::atomic<std::size_t> countedBytes{0};

void* allocate(std::size_t size) {
  if (counting.load(std::memory_order_relaxed)) {
    countedCalls.fetch_add(1, std::memory_order_relaxed);
    countedBytes.fetch_add(size, std::memory_order_relaxed);
  }
  void* p = std::malloc(size == 0 ? 1 : size);
  if (!p) throw std::bad_alloc();
  return p;
}
}  // namespace

void startCounting() {
  countedCalls = 0;
  countedBytes = 0;
  counting = true;
}

AllocationCount stopCounting() {
  counting = false;
  AllocationCount result;
  result.calls = countedCalls;
  result.bytes = countedBytes;
  return result;
}

}  // namespace zubench

// Replacements of the global allocation functions, for this program only.
void* operator new(std::size_t size) { return zubench::allocate(size); }
void* operator new[](std::size_t size) { return zubench::allocate(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
