#include "tools/input.h"

#include <fmt/core.h>

#include <cstring>
#include <system_error>

#include "platform/file.h"
#include "platform/streams.h"
#include "tools/errors.h"
#include "tools/interrupt.h"

namespace portsvc::tools {
namespace {

// Waits for what there is and appends it. False at the end of the file.
bool read_some(int file, const std::string& name, std::string& bytes) {
  (void)wait_readable({file, interrupt_fd()});
  throw_if_interrupted();
  try {
    return read_more(file, bytes);
  } catch (const std::system_error& failure) {
    throw UsageError(fmt::format("cannot read {}: {}", name, failure.code().message()));
  }
}

File open_to_read(const std::string& path) {
  try {
    return File(path, File::Mode::read);
  } catch (const std::system_error& failure) {
    throw UsageError(fmt::format("cannot open {}: {}", path, failure.code().message()));
  }
}

}  // namespace

std::string read_payload(const PayloadOptions& options) {
  if (options.data && !options.file.empty()) {
    throw UsageError("give the payload as an argument or with --file, not both");
  }
  if (options.data) return *options.data;
  std::string bytes;
  if (options.file.empty()) {
    while (read_some(standard_input, "standard input", bytes)) {
    }
  } else {
    const File file = open_to_read(options.file);
    while (read_some(file.fd(), options.file, bytes)) {
    }
  }
  return bytes;
}

std::optional<std::string> LineReader::next() {
  std::size_t searched = start_;
  for (;;) {
    const std::size_t newline = buffer_.find('\n', searched);
    if (newline != std::string::npos) {
      std::string line = buffer_.substr(start_, newline - start_);
      start_ = newline + 1;
      return line;
    }
    if (at_end_) {
      if (start_ == buffer_.size()) return std::nullopt;
      std::string line = buffer_.substr(start_);
      start_ = buffer_.size();
      return line;
    }
    buffer_.erase(0, start_);
    start_ = 0;
    searched = buffer_.size();
    at_end_ = !read_some(standard_input, "standard input", buffer_);
    read_ += buffer_.size() - searched;
  }
}

std::optional<std::uint64_t> LineReader::bytes_in_all() { return bytes_left(standard_input); }

void check_size(std::size_t payload_bytes, std::uint64_t max_message) {
  // Addressing, operation and the other arguments of the call.
  constexpr std::uint64_t envelope = 1024;
  if (payload_bytes + envelope > max_message) {
    throw UsageError(
        fmt::format("a payload of {} bytes does not fit a message of {} bytes "
                    "(--max-message)",
                    payload_bytes, max_message));
  }
}

}  // namespace portsvc::tools
