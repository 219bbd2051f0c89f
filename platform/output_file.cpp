#include "platform/output_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "platform/file.h"
#include "platform/process.h"

namespace fs = std::filesystem;

namespace portsvc {
namespace {

[[noreturn]] void failed(int error) { throw std::system_error(error, std::generic_category()); }

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
  const std::string draft = path.string() + "." + std::to_string(process_id());
  try {
    File file(draft, File::Mode::rewrite);
    if (mode != 0 && ::fchmod(file.fd(), mode) != 0) failed(errno);
    write_fully(file.fd(), bytes);
    file.close();
    fs::rename(draft, path);
  } catch (...) {
    remove_file(draft);
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
  File device(path, File::Mode::write);
  write_fully(device.fd(), bytes);
  device.close();
}

}  // namespace

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
