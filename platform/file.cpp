#include "platform/file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

namespace portsvc {
namespace {

[[noreturn]] void failed(int error) { throw std::system_error(error, std::generic_category()); }

int flags_of(File::Mode mode) {
  switch (mode) {
    case File::Mode::read:
      return O_RDONLY;
    case File::Mode::folder:
      return O_RDONLY | O_DIRECTORY;
    case File::Mode::create:
      return O_WRONLY | O_CREAT | O_EXCL;
    case File::Mode::rewrite:
      return O_WRONLY | O_CREAT | O_TRUNC;
    case File::Mode::rewrite_here:
      return O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW;
    case File::Mode::write:
      return O_WRONLY;
    case File::Mode::sink:
      return O_WRONLY | O_CREAT | O_NONBLOCK;  // or it would wait for the reader of a pipe
    case File::Mode::image:
      return O_RDWR | O_CREAT | O_NOFOLLOW;
  }
  return O_RDONLY;
}

}  // namespace

File::File(const std::string& path, Mode mode)
    : fd_(::open(path.c_str(), flags_of(mode) | O_CLOEXEC, mode == Mode::image ? 0600 : 0666)) {
  if (fd_ < 0) failed(errno);
  if (mode == Mode::sink) ::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) & ~O_NONBLOCK);
}

File::~File() {
  if (fd_ >= 0) ::close(fd_);
}

File::File(File&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

File& File::operator=(File&& other) noexcept {
  std::swap(fd_, other.fd_);
  return *this;
}

void File::close() {
  if (fd_ >= 0 && ::close(std::exchange(fd_, -1)) != 0) failed(errno);
}

void File::flush() {
  if (::fsync(fd_) != 0) failed(errno);
}

void File::empty() {
  if (::ftruncate(fd_, 0) != 0) failed(errno);
}

bool File::lock() {
  if (::flock(fd_, LOCK_EX | LOCK_NB) == 0) return true;
  if (errno != EWOULDBLOCK) failed(errno);
  return false;
}

Pipe::Pipe() {
  std::array<int, 2> ends{-1, -1};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot make a pipe");
  }
  read_end = File(ends[0]);
  write_end = File(ends[1]);
}

Event_File::Event_File() : file_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (file_.fd() >= 0) return;
  throw std::system_error(errno, std::generic_category(), "cannot make an event");
}

void Event_File::set() const noexcept {
  const std::uint64_t one = 1;
  (void)!::write(file_.fd(), &one, sizeof one);
}

void write_fully(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(file, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {  // whoever shares the stream has made it non-blocking
      pollfd room{file, POLLOUT, 0};
      (void)::poll(&room, 1, -1);
    } else if (errno != EINTR) {
      failed(errno);
    }
  }
}

bool read_more(int file, std::string& bytes) {
  std::array<char, 65536> chunk;
  const ssize_t got = ::read(file, chunk.data(), chunk.size());
  if (got < 0 && errno != EINTR && errno != EAGAIN) failed(errno);
  if (got > 0) bytes.append(chunk.data(), static_cast<std::size_t>(got));
  return got != 0;
}

}  // namespace portsvc
