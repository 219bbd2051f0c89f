#include "tests/support/allocation.h"

#include <cstdlib>
#include <new>

namespace {

thread_local int good_ones = -1;  // -1: all

// Sanitizers see the memory through malloc.
void* allocate(std::size_t size) {
  if (good_ones >= 0 && --good_ones < 0) return nullptr;
  return std::malloc(size == 0 ? 1 : size);
}

void* allocate_or_throw(std::size_t size) {
  if (void* const memory = allocate(size)) return memory;
  throw std::bad_alloc();
}

}  // namespace

namespace portsvc {

FailingAllocation::FailingAllocation(int good) { good_ones = good; }
FailingAllocation::~FailingAllocation() { good_ones = -1; }
bool FailingAllocation::failed() const { return good_ones < 0; }

}  // namespace portsvc

void* operator new(std::size_t size) { return allocate_or_throw(size); }
void* operator new[](std::size_t size) { return allocate_or_throw(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
