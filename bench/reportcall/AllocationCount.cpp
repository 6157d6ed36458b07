#include "reportcall/AllocationCount.h"

#include <cstdlib>
#include <new>

namespace {

// Per thread: the writer's and the senders' allocations are not the
// caller's.
thread_local uint64_t allocations = 0;

void* allocate(std::size_t size) {
  ++allocations;
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}

}  // namespace

namespace korvel::bench {

uint64_t threadAllocations() noexcept { return allocations; }

}  // namespace korvel::bench

// The array, nothrow and sized forms of the standard library call these.
void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
