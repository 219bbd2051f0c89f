#include "platform/process.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>

namespace fs = std::filesystem;

namespace portsvc {
namespace {

std::string chosen_state_folder;

fs::path executable() {
  std::error_code not_told;
  return fs::read_symlink("/proc/self/exe", not_told);
}

}  // namespace

unsigned int process_id() { return static_cast<unsigned int>(::getpid()); }

void name_this_thread(const char* name) { (void)::pthread_setname_np(::pthread_self(), name); }

std::optional<std::uint64_t> most_open_files() {
  rlimit files{};
  if (::getrlimit(RLIMIT_NOFILE, &files) != 0) return std::nullopt;
  return files.rlim_cur;
}

void raise_most_open_files() {
  rlimit files{};
  if (::getrlimit(RLIMIT_NOFILE, &files) != 0) return;
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
}

unsigned long long process_start(unsigned int process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  const std::string all{std::istreambuf_iterator<char>(file), {}};
  const auto name_end = all.rfind(')');  // the name before may hold anything
  if (name_end == std::string::npos) return 0;
  std::istringstream fields(all.substr(name_end + 1));
  std::string skipped;
  for (int field = 3; field < 22; ++field) fields >> skipped;
  unsigned long long started = 0;
  fields >> started;
  return started;
}

std::string program_name() {
  std::string name = executable().filename();
  std::replace(name.begin(), name.end(), ' ', '_');
  return name.empty() ? "program" : name;
}

std::string host_name() {
  std::array<char, 256> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 && name[0] ? name.data() : "localhost";
}

std::string executable_folder() {
  const fs::path full = executable();
  return full.has_parent_path() ? full.parent_path().string() : ".";
}

std::string state_folder() {
  return chosen_state_folder.empty() ? executable_folder() : chosen_state_folder;
}

void set_state_folder(const std::string& path) { chosen_state_folder = path; }

void make_folder(const std::string& path) {
  std::error_code ignored;
  fs::create_directory(path, ignored);
}

void remove_file(const std::string& path) { (void)::unlink(path.c_str()); }

}  // namespace portsvc
