// Whether a file has changed.
#pragma once

#include <cstdint>
#include <string>

namespace portsvc {

/// What tells one state of a file from another: also one that was put in its place with the same
/// length and time.
struct File_Stamp {
  std::uint64_t inode = 0;
  std::int64_t size = 0;
  std::int64_t seconds = 0;  ///< of the last change
  std::int64_t nanoseconds = 0;

  bool operator==(const File_Stamp& other) const {
    return inode == other.inode && size == other.size && seconds == other.seconds &&
           nanoseconds == other.nanoseconds;
  }

  /// The stamp of the file at `path` as it is; all zeros when there is none.
  static File_Stamp of(const std::string& path);
};

}  // namespace portsvc
