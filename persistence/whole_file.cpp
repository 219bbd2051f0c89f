#include "persistence/whole_file.h"

#include <filesystem>
#include <optional>
#include <system_error>

#include "platform/file.h"
#include "platform/process.h"

namespace fs = std::filesystem;

namespace portsvc {
namespace {

std::string failed(const std::string& path, const std::system_error& why) {
  return "cannot write " + path + ": " + why.code().message();
}

bool takes_no_new_file(const std::error_code& failure) {
  return failure == std::errc::permission_denied || failure == std::errc::operation_not_permitted ||
         failure == std::errc::read_only_file_system;
}

void fill(File file, std::string_view bytes) {
  write_fully(file.fd(), bytes);
  file.flush();
}

// The rename itself must survive a power cut. Some file systems cannot flush folders; nothing is
// lost then but the newest file.
void flush_folder_of(const fs::path& path) {
  try {
    File(path.has_parent_path() ? path.parent_path() : ".", File::Mode::folder).flush();
  } catch (const std::system_error&) {
    // See above.
  }
}

}  // namespace

std::string not_a_plain_file(const std::string& path) {
  std::error_code ignored;
  const char* kind = "a device, pipe or socket";
  switch (fs::symlink_status(path, ignored).type()) {
    case fs::file_type::none:
    case fs::file_type::not_found:
    case fs::file_type::regular:
      return {};
    case fs::file_type::symlink:
      kind = "a symbolic link";
      break;
    case fs::file_type::directory:
      kind = "a folder";
      break;
    default:
      break;
  }
  return path + " is " + kind + ", not a plain file";
}

std::string write_whole_file(const std::string& path, std::string_view bytes) {
  std::string odd = not_a_plain_file(path);
  if (!odd.empty()) return odd;
  const std::string fresh = path + unfinished;
  remove_file(fresh);  // left by a process that died
  std::optional<File> file;
  try {
    file.emplace(fresh, File::Mode::create);
  } catch (const std::system_error& why) {
    if (!takes_no_new_file(why.code())) return failed(fresh, why);
  }
  try {
    if (!file) {
      fill(File(path, File::Mode::rewrite_here), bytes);
      return {};
    }
    fill(std::move(*file), bytes);
    fs::rename(fresh, path);
  } catch (const std::system_error& why) {
    if (file) remove_file(fresh);
    return failed(path, why);
  }
  flush_folder_of(path);
  return {};
}

}  // namespace portsvc
