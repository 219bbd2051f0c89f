#include "platform/process.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>

namespace portsvc {
namespace {

std::string chosen_state_folder;

}  // namespace

unsigned int process_id() { return static_cast<unsigned int>(::getpid()); }

void name_this_thread(const char* name) { (void)::pthread_setname_np(::pthread_self(), name); }

std::string executable_folder() {
  std::array<char, 4096> path{};
  const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
  if (length <= 0) return ".";
  const std::string full(path.data(), static_cast<std::size_t>(length));
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
