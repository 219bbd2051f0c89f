// Copies of payloads.
#pragma once

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

namespace portsvc {

/// A copy of `size` bytes; null when there are none, and, with errno ENOMEM, when they cannot be
/// allocated.
inline std::unique_ptr<unsigned char[]> copy_of(const void* data, unsigned int size) {
  if (size == 0 || data == nullptr) return nullptr;
  std::unique_ptr<unsigned char[]> octets(new (std::nothrow) unsigned char[size]);
  if (octets) {
    std::memcpy(octets.get(), data, size);
  } else {
    errno = ENOMEM;
  }
  return octets;
}

}  // namespace portsvc
