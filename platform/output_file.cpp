#include "platform/output_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;

namespace portsvc {
namespace {

[[noreturn]] void failed(int error) { throw std::system_error(error, std::generic_category()); }

class Open_File {
 public:
  Open_File(const std::string& path, int flags, mode_t mode = 0)
      : fd_(::open(path.c_str(), flags | O_CLOEXEC, mode)) {
    if (fd_ < 0) failed(errno);
  }
  ~Open_File() {
    if (fd_ >= 0) ::close(fd_);
  }
  Open_File(const Open_File&) = delete;
  Open_File& operator=(const Open_File&) = delete;
  int fd() const { return fd_; }
  // Some file systems say only now that the disk is full.
  void close() {
    if (::close(std::exchange(fd_, -1)) != 0) failed(errno);
  }

 private:
  int fd_;
};

// The standard stream that `file` is, under whatever name, or -1.
int standard_stream(const struct stat& file) {
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
    struct stat open {};
    if (::fstat(stream, &open) == 0 && open.st_dev == file.st_dev && open.st_ino == file.st_ino) {
      return stream;
    }
  }
  return -1;
}

// The file that a chain of links ends at, which need not exist.
fs::path target_of(fs::path path) {
  constexpr int most_links = 40;
  for (int links = 0; fs::is_symlink(fs::symlink_status(path)); ++links) {
    if (links == most_links) failed(ELOOP);
    path = path.parent_path() / fs::read_symlink(path);  // an absolute target stands alone
  }
  return path;
}

void replace(const fs::path& path, std::string_view bytes, mode_t mode) {
  const std::string draft = path.string() + "." + std::to_string(::getpid());
  try {
    Open_File file(draft, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (mode != 0 && ::fchmod(file.fd(), mode) != 0) failed(errno);
    write_fully(file.fd(), bytes);
    file.close();
    fs::rename(draft, path);
  } catch (...) {
    ::unlink(draft.c_str());
    throw;
  }
}

void write(const std::string& path, std::string_view bytes) {
  if (is_standard_output(path)) return write_fully(STDOUT_FILENO, bytes);
  struct stat file {};
  if (::stat(path.c_str(), &file) != 0) {
    if (errno != ENOENT) failed(errno);
    return replace(target_of(path), bytes, 0);
  }
  const int stream = standard_stream(file);
  if (stream >= 0) return write_fully(stream, bytes);
  if (S_ISREG(file.st_mode)) return replace(target_of(path), bytes, file.st_mode & 07777);
  Open_File device(path, O_WRONLY);
  write_fully(device.fd(), bytes);
  device.close();
}

}  // namespace

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

void write_output_file(const std::string& path, std::string_view bytes) {
  try {
    write(path, bytes);
  } catch (const std::system_error& error) {
    throw std::runtime_error("cannot write " +
                             (is_standard_output(path) ? "to standard output" : path) + ": " +
                             error.code().message());
  }
}

}  // namespace portsvc
