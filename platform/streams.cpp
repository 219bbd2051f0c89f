#include "platform/streams.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <vector>

namespace portsvc {
namespace {

constexpr short gone_events = POLLERR | POLLHUP | POLLNVAL;

}  // namespace

bool wait_readable(std::initializer_list<int> files, std::chrono::milliseconds patience) {
  std::vector<pollfd> watched;
  watched.reserve(files.size());
  for (const int file : files) watched.push_back({file, POLLIN, 0});
  return ::poll(watched.data(), watched.size(), static_cast<int>(patience.count())) > 0;
}

bool wait_writable(int file, int or_readable) {
  std::array<pollfd, 2> watched{pollfd{file, POLLOUT, 0}, pollfd{or_readable, POLLIN, 0}};
  while (::poll(watched.data(), watched.size(), -1) < 0 && errno == EINTR) {
  }
  return (watched[0].revents & gone_events) == 0;
}

bool reader_gone(int file) {
  pollfd output{file, 0, 0};
  return ::poll(&output, 1, 0) > 0 && (output.revents & gone_events) != 0;
}

bool wait_until_reader_gone(int file, int stop) {
  std::array<pollfd, 2> watched{pollfd{file, 0, 0}, pollfd{stop, POLLIN, 0}};
  while (::poll(watched.data(), watched.size(), -1) < 0 && errno == EINTR) {
  }
  return (watched[0].revents & gone_events) != 0;
}

std::error_code would_fail(int file) {
  if (::write(file, "", 0) >= 0 || errno == EAGAIN) return {};
  return {errno, std::generic_category()};
}

bool is_terminal(int file) { return ::isatty(file) == 1; }

bool is_regular_file(int file) {
  struct stat facts {};
  return ::fstat(file, &facts) == 0 && S_ISREG(facts.st_mode);
}

std::optional<std::uint64_t> bytes_left(int file) {
  struct stat facts {};
  if (::fstat(file, &facts) != 0 || !S_ISREG(facts.st_mode)) return std::nullopt;
  const off_t at = ::lseek(file, 0, SEEK_CUR);
  return at < 0 || at > facts.st_size ? 0 : static_cast<std::uint64_t>(facts.st_size - at);
}

std::size_t unread_in_pipe(int file) {
  int bytes = 0;
  struct stat facts {};
  const bool pipe = ::fstat(file, &facts) == 0 && S_ISFIFO(facts.st_mode);
  return pipe && ::ioctl(file, FIONREAD, &bytes) == 0 && bytes > 0 ? static_cast<std::size_t>(bytes)
                                                                   : 0;
}

std::optional<std::uint64_t> free_disk_space(int file) {
  struct statvfs disk {};
  if (::fstatvfs(file, &disk) != 0) return std::nullopt;
  return disk.f_bavail * disk.f_frsize;
}

std::string file_identity(int file) {
  struct stat facts {};
  if (::fstat(file, &facts) != 0) return {};
  return std::to_string(facts.st_dev) + ":" + std::to_string(facts.st_ino);
}

}  // namespace portsvc
