// A set of handles that outlives the process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/mapped_file.h"

namespace portsvc {

/// Up to `capacity` handles and the text of what they belong to, in a file that is mapped into
/// memory: a change costs a store, and the system keeps it when the process is killed (not when the
/// machine is). Without an open file nothing is kept. Not thread-safe.
///
/// Layout, numbers as the machine has them: 8 octets "PORTOPEN", 248 octets text ending in zeros,
/// `capacity` handles of 4 octets, 0 for a free place.
class Handle_File {
 public:
  static constexpr std::size_t capacity = 16384;

  Handle_File() = default;
  Handle_File(const Handle_File&) = delete;
  Handle_File& operator=(const Handle_File&) = delete;

  /// Opens the file, or makes it, and answers the text in it; one that is no such file is begun
  /// anew. Throws std::runtime_error, also when another process has it open.
  std::string open(const std::string& path);
  /// The handles it holds.
  std::vector<unsigned int> handles() const;
  /// Drops all handles; the next belong to `text`, of which 247 octets are kept.
  void begin(const std::string& text);
  /// `handle` is not 0 and not in it. Throws std::bad_alloc, then it is not in it.
  void add(unsigned int handle);
  void remove(unsigned int handle);

 private:
  struct Image;
  void find_places();

  std::optional<Mapped_File> file_;
  Image* image_ = nullptr;                        // in it
  std::map<unsigned int, std::uint32_t> places_;  // by handle
  std::vector<std::uint32_t> free_;
};

}  // namespace portsvc
