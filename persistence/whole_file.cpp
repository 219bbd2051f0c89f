#include "persistence/whole_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "platform/process.h"

namespace portsvc {
namespace {

std::string failed(const char* what, const std::string& path) {
  return std::string("cannot ") + what + " " + path + ": " + std::generic_category().message(errno);
}

// Writes all and flushes it to the disk; closes `file` in any case.
bool fill_and_close(int file, std::string_view bytes) {
  bool good = true;
  while (good && !bytes.empty()) {
    const ssize_t written = ::write(file, bytes.data(), bytes.size());
    if (written > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else {
      good = written < 0 && errno == EINTR;
    }
  }
  good = good && ::fsync(file) == 0;
  const int reason = errno;
  if (::close(file) == 0) errno = reason;
  return good;
}

// The rename itself must survive a power cut. Some file systems cannot flush folders; nothing is
// lost then but the newest file.
void flush_folder_of(const std::string& path) {
  const auto separator = path.rfind('/');
  const std::string folder = separator == std::string::npos ? "." : path.substr(0, separator + 1);
  const int file = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (file < 0) return;
  (void)::fsync(file);
  ::close(file);
}

}  // namespace

std::string not_a_plain_file(const std::string& path) {
  struct stat found {};
  if (::lstat(path.c_str(), &found) != 0 || S_ISREG(found.st_mode)) return {};
  const char* const kind = S_ISLNK(found.st_mode)   ? "a symbolic link"
                           : S_ISDIR(found.st_mode) ? "a folder"
                                                    : "a device, pipe or socket";
  return path + " is " + kind + ", not a plain file";
}

std::string write_whole_file(const std::string& path, std::string_view bytes) {
  std::string odd = not_a_plain_file(path);
  if (!odd.empty()) return odd;
  constexpr int mode = 0666;
  const std::string fresh = path + unfinished;
  remove_file(fresh);  // left by a process that died
  int file = ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (file < 0 && (errno == EACCES || errno == EPERM || errno == EROFS)) {
    file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, mode);
    if (file < 0 || !fill_and_close(file, bytes)) return failed("write", path);
    return {};
  }
  if (file < 0) return failed("write", fresh);
  if (!fill_and_close(file, bytes) || ::rename(fresh.c_str(), path.c_str()) != 0) {
    odd = failed("write", path);
    remove_file(fresh);
    return odd;
  }
  flush_folder_of(path);
  return {};
}

}  // namespace portsvc
