// A file that stands in memory.
#pragma once

#include <cstddef>
#include <string>

#include "platform/file.h"

namespace portsvc {

/// A file of `size` bytes, mapped: a change costs a store, and the system keeps it when the process
/// is killed. One process has it at a time.
class Mapped_File {
 public:
  /// Opens the file, or makes it for this user alone; new bytes are 0. The disk space is taken at
  /// once: a full disk must not be met by a store. Throws std::system_error, also for a symbolic
  /// link, for what is no regular file, and when another process has it open.
  Mapped_File(const std::string& path, std::size_t size);
  ~Mapped_File();
  Mapped_File(const Mapped_File&) = delete;
  Mapped_File& operator=(const Mapped_File&) = delete;

  void* memory() const { return memory_; }

 private:
  File file_;
  const std::size_t size_;
  void* memory_ = nullptr;
};

}  // namespace portsvc
