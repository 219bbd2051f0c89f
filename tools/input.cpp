#include "tools/input.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "tools/errors.h"
#include "tools/interrupt.h"

namespace portsvc::tools {
namespace {

// Reads what is there, at least one byte, and appends it. False at the end of the file.
bool read_some(int file, const std::string& name, std::string& bytes) {
  std::array<pollfd, 2> watched{pollfd{file, POLLIN, 0}, pollfd{interrupt_fd(), POLLIN, 0}};
  (void)::poll(watched.data(), watched.size(), -1);
  throw_if_interrupted();
  std::array<char, 65536> chunk;
  const ssize_t got = ::read(file, chunk.data(), chunk.size());
  if (got < 0) {
    if (errno == EINTR || errno == EAGAIN) return true;
    throw UsageError(
        fmt::format("cannot read {}: {}", name, std::generic_category().message(errno)));
  }
  bytes.append(chunk.data(), static_cast<std::size_t>(got));
  return got > 0;
}

class File {
 public:
  explicit File(const std::string& path) : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (fd_ < 0) {
      throw UsageError(
          fmt::format("cannot open {}: {}", path, std::generic_category().message(errno)));
    }
  }
  ~File() { ::close(fd_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

std::string read_payload(const PayloadOptions& options) {
  if (options.data && !options.file.empty()) {
    throw UsageError("give the payload as an argument or with --file, not both");
  }
  if (options.data) return *options.data;
  std::string bytes;
  if (options.file.empty()) {
    while (read_some(STDIN_FILENO, "standard input", bytes)) {
    }
  } else {
    const File file(options.file);
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
    at_end_ = !read_some(STDIN_FILENO, "standard input", buffer_);
    read_ += buffer_.size() - searched;
  }
}

std::optional<std::uint64_t> LineReader::bytes_in_all() {
  struct stat input {};
  if (::fstat(STDIN_FILENO, &input) != 0 || !S_ISREG(input.st_mode)) return std::nullopt;
  const off_t at = ::lseek(STDIN_FILENO, 0, SEEK_CUR);
  return at < 0 || at > input.st_size ? 0 : static_cast<std::uint64_t>(input.st_size - at);
}

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
