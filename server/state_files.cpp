#include "server/state_files.h"

#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "platform/process.h"

namespace fs = std::filesystem;

namespace portsvc::server {
namespace {

[[noreturn]] void fail(const char* what, const std::string& path, const std::error_code& why) {
  throw std::runtime_error(fmt::format("cannot {} {}: {}", what, path, why.message()));
}

}  // namespace

void use_state_folder(const std::string& folder) {
  if (folder.empty()) return;
  std::error_code failure;
  fs::create_directories(folder, failure);
  if (failure) fail("make the folder", folder, failure);
  set_state_folder(folder);
}

std::optional<std::string> set_aside_snapshot() {
  const fs::path folder = fs::path(state_folder()) / "SnapShot";
  const fs::path left = folder / "portsnap.snp";
  // It stays there after it has been loaded: a server that dies before its first own snapshot
  // leaves no other, and the next start then finds this one.
  const fs::path aside = folder / "portsnap.previous";
  std::error_code failure;
  if (fs::exists(left, failure)) {
    fs::rename(left, aside, failure);
    if (failure) fail("set aside", left, failure);
  }
  if (!fs::exists(aside, failure)) return std::nullopt;
  return aside;
}

void write_by_rename(const std::string& path, const std::string& content) {
  const std::string unfinished = fmt::format("{}.{}", path, process_id());
  std::ofstream file(unfinished, std::ios::trunc);
  file << content;
  file.close();
  std::error_code failure;
  if (!file) {
    failure = std::error_code(errno, std::generic_category());
  } else {
    fs::rename(unfinished, path, failure);
  }
  if (failure) {
    remove_file(unfinished);
    fail("write", path, failure);
  }
}

}  // namespace portsvc::server
