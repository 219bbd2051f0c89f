#include "bench/child_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace portsvc::bench {
namespace {

std::runtime_error system_error(const std::string& what) {
  return std::runtime_error(fmt::format("{}: {}", what, std::strerror(errno)));
}

std::string proc_file(pid_t pid, const char* name) { return fmt::format("/proc/{}/{}", pid, name); }

/// A field of /proc/PID/stat, numbered from 1 as in proc(5).
double stat_field(pid_t pid, int number) {
  const std::string text = read_text(proc_file(pid, "stat"));
  // The second, a name in parentheses, may hold spaces: count from behind it.
  std::istringstream words(text.substr(text.rfind(')') + 1));
  std::string skipped;
  for (int i = 3; i < number; ++i) words >> skipped;
  double value = 0;
  words >> value;
  return value;
}

/// Threads come and go while they are listed; those that went need no pinning, and new ones
/// inherit.
void pin_all_threads(pid_t pid, const cpu_set_t& processors) {
  std::error_code gone;
  for (std::filesystem::directory_iterator task(proc_file(pid, "task"), gone), end; task != end;
       task.increment(gone)) {
    const pid_t thread = std::stoi(task->path().filename().string());
    ::sched_setaffinity(thread, sizeof processors, &processors);
  }
}

}  // namespace

TemporaryFolder::TemporaryFolder()
    : path_((std::filesystem::temp_directory_path() / "port_bench.XXXXXX").string()) {
  if (!::mkdtemp(path_.data())) throw system_error("cannot make a temporary folder");
}

TemporaryFolder::~TemporaryFolder() { remove(); }

void TemporaryFolder::remove() const {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

Child::Child(const std::vector<std::string>& command, const std::string& log) : log_(log) {
  std::vector<char*> arguments;
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  const int output = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (output < 0) throw system_error("cannot write " + log);
  pid_ = ::fork();
  if (pid_ == 0) {
    // Only calls that are safe in the child of a process with threads.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    ::execvp(arguments[0], arguments.data());
    ::_exit(127);
  }
  ::close(output);
  if (pid_ < 0) throw system_error("cannot start " + command.front());
}

Child::~Child() {
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

void Child::require_alive() const {
  siginfo_t info{};
  const bool ended =
      ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
      info.si_pid != 0;
  if (!ended) return;
  const std::string text = read_text(log_);
  throw std::runtime_error("a server ended: " +
                           text.substr(text.size() > 500 ? text.size() - 500 : 0));
}

void Child::freeze() const { ::kill(pid_, SIGSTOP); }

void Child::thaw() const { ::kill(pid_, SIGCONT); }

double Child::cpu_seconds() const {
  return (stat_field(pid_, 14) + stat_field(pid_, 15)) /
         static_cast<double>(::sysconf(_SC_CLK_TCK));
}

unsigned int Child::threads() const { return static_cast<unsigned int>(stat_field(pid_, 20)); }

double Child::resident_bytes() const {
  std::istringstream words(read_text(proc_file(pid_, "statm")));
  double pages = 0;
  words >> pages >> pages;
  return pages * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

Pinned::Pinned(const std::vector<const Child*>& children, Places places) {
  ::sched_getaffinity(0, sizeof before_, &before_);
  std::vector<cpu_set_t> single;
  for (int i = 0; i < CPU_SETSIZE; ++i) {
    if (!CPU_ISSET(i, &before_)) continue;
    single.emplace_back();
    CPU_ZERO(&single.back());
    CPU_SET(i, &single.back());
  }
  const bool two = places == apart && single.size() > 1;
  if (two) processors_ = "two";
  processes_.push_back(::getpid());
  pin_all_threads(processes_[0], two ? single.front() : single.back());
  for (const Child* child : children) {
    processes_.push_back(child->pid());
    pin_all_threads(child->pid(), single.back());
  }
}

Pinned::~Pinned() {
  for (const pid_t pid : processes_) pin_all_threads(pid, before_);
}

void end_on_signal(const TemporaryFolder& folder) {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGINT);
  ::sigaddset(&signals, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::thread([&folder, signals] {
    int signal = 0;
    ::sigwait(&signals, &signal);
    folder.remove();
    ::_exit(130);
  }).detach();
}

void wait_until(const std::function<bool()>& done, std::chrono::seconds patience,
                const std::string& what) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error(fmt::format("{}: not within {} s", what, patience.count()));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

unsigned int free_port() {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (socket < 0) throw system_error("cannot make a socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  const bool bound = ::bind(socket, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
                     ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  ::close(socket);
  if (!bound) throw system_error("cannot find a free port");
  return ntohs(address.sin_port);
}

bool is_installed(const std::string& program) {
  const char* const path = std::getenv("PATH");
  std::istringstream folders(path ? path : "");
  for (std::string folder; std::getline(folders, folder, ':');) {
    if (::access((folder + "/" + program).c_str(), X_OK) == 0) return true;
  }
  return false;
}

std::string read_text(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void allow_many_connections() {
  rlimit files{};
  if (::getrlimit(RLIMIT_NOFILE, &files) != 0) return;
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
}

}  // namespace portsvc::bench
