#include "tests/support/allocation.h"

#include <new>

namespace {

thread_local bool no_memory = false;

}  // namespace

namespace portsvc {

NoMemory::NoMemory() { no_memory = true; }
NoMemory::~NoMemory() { no_memory = false; }

}  // namespace portsvc

// These pass on to the throwing forms, so that a sanitizer still sees every allocation.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (no_memory) return nullptr;
  try {
    return ::operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  if (no_memory) return nullptr;
  try {
    return ::operator new[](size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
