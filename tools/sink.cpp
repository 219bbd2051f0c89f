#include "tools/sink.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "platform/output_file.h"
#include "tools/errors.h"
#include "tools/interrupt.h"

namespace portsvc::tools {
namespace {

constexpr short gone_events = POLLERR | POLLHUP | POLLNVAL;

// A pipe without a reader cannot be opened yet.
int open_for_writing(const std::string& file) {
  for (;;) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0666);
    if (fd >= 0) {
      ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
      return fd;
    }
    if (errno != ENXIO) {
      throw UsageError(
          fmt::format("cannot write {}: {}", file, std::generic_category().message(errno)));
    }
    pollfd interrupt{interrupt_fd(), POLLIN, 0};
    (void)::poll(&interrupt, 1, 50);
    throw_if_interrupted();
  }
}

}  // namespace

bool reader_gone(int fd) {
  pollfd output{fd, 0, 0};
  return ::poll(&output, 1, 0) > 0 && (output.revents & gone_events) != 0;
}

Sink::Sink(const std::string& file) : name_(file) {
  if (file.empty() || is_standard_output(file)) {
    name_ = "standard output";
    fd_ = STDOUT_FILENO;
  } else {
    fd_ = open_for_writing(file);
  }
  struct stat is {};
  regular_ = ::fstat(fd_, &is) == 0 && S_ISREG(is.st_mode);
  terminal_ = ::isatty(fd_) == 1;
  to_be_emptied_ = regular_ && fd_ != STDOUT_FILENO;
}

Sink::~Sink() {
  if (fd_ != STDOUT_FILENO) ::close(fd_);
}

void Sink::failed(int error) const {
  if (error == EPIPE) throw ReaderGone();
  throw Failure(
      fmt::format("cannot write to {}: {}", name_, std::generic_category().message(error)));
}

void Sink::wait_for_room() {
  if (std::exchange(to_be_emptied_, false) && ::ftruncate(fd_, 0) != 0) failed(errno);
  if (regular_) {
    constexpr std::size_t least = 16384;
    struct statvfs disk {};
    if (::fstatvfs(fd_, &disk) == 0 && disk.f_bavail * disk.f_frsize < least + largest_) {
      failed(ENOSPC);
    }
    return;
  }
  std::array<pollfd, 2> watched{pollfd{fd_, POLLOUT, 0}, pollfd{interrupt_fd(), POLLIN, 0}};
  while (::poll(watched.data(), watched.size(), -1) < 0 && errno == EINTR) {
  }
  if ((watched[0].revents & gone_events) != 0) throw ReaderGone();
  throw_if_interrupted();
  if (!terminal_ && ::write(fd_, "", 0) < 0 && errno != EAGAIN) failed(errno);
}

void Sink::write(std::string_view bytes) {
  largest_ = std::max(largest_, bytes.size());
  try {
    write_fully(fd_, bytes);
  } catch (const std::system_error& error) {
    failed(error.code().value());
  }
}

std::size_t Sink::unread() const {
  int bytes = 0;
  struct stat is {};
  const bool pipe = ::fstat(fd_, &is) == 0 && S_ISFIFO(is.st_mode);
  return pipe && ::ioctl(fd_, FIONREAD, &bytes) == 0 && bytes > 0 ? static_cast<std::size_t>(bytes)
                                                                  : 0;
}

ReaderWatch::ReaderWatch(const Sink& sink, std::function<void()> on_gone) {
  if (sink.is_steady()) return;
  stop_ = ::eventfd(0, EFD_CLOEXEC);
  thread_ = std::thread([fd = sink.fd(), stop = stop_, on_gone = std::move(on_gone)] {
    std::array<pollfd, 2> watched{pollfd{fd, 0, 0}, pollfd{stop, POLLIN, 0}};
    while (::poll(watched.data(), watched.size(), -1) < 0 && errno == EINTR) {
    }
    if ((watched[0].revents & gone_events) != 0) on_gone();
  });
}

ReaderWatch::~ReaderWatch() {
  if (!thread_.joinable()) return;
  const std::uint64_t one = 1;
  (void)!::write(stop_, &one, sizeof(one));
  thread_.join();
  ::close(stop_);
}

}  // namespace portsvc::tools
