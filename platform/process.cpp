#include "platform/process.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>
#include <sstream>

namespace portsvc {
namespace {

std::string chosen_state_folder;

std::string executable() {
  std::array<char, 4096> path{};
  const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
  return length <= 0 ? "" : std::string(path.data(), static_cast<std::size_t>(length));
}

}  // namespace

unsigned int process_id() { return static_cast<unsigned int>(::getpid()); }

void name_this_thread(const char* name) { (void)::pthread_setname_np(::pthread_self(), name); }

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
  const std::string full = executable();
  std::string name = full.substr(full.rfind('/') + 1);
  std::replace(name.begin(), name.end(), ' ', '_');
  return name.empty() ? "program" : name;
}

std::string host_name() {
  std::array<char, 256> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 && name[0] ? name.data() : "localhost";
}

std::string executable_folder() {
  const std::string full = executable();
  const auto separator = full.rfind('/');
  return separator == std::string::npos ? "." : full.substr(0, separator);
}

std::string state_folder() {
  return chosen_state_folder.empty() ? executable_folder() : chosen_state_folder;
}

void set_state_folder(const std::string& path) { chosen_state_folder = path; }

void make_folder(const std::string& path) { (void)::mkdir(path.c_str(), 0777); }

void remove_file(const std::string& path) { (void)::unlink(path.c_str()); }

}  // namespace portsvc
