#include "tests/system/process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "idl/port_codes.h"
#include "tests/support/folder.h"

namespace fs = std::filesystem;

namespace portsvc {
namespace {

using std::chrono::steady_clock;

int checked(int answer, const char* what) {
  if (answer < 0) throw std::system_error(errno, std::generic_category(), what);
  return answer;
}

int new_socket() {
  return checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "cannot make a socket");
}

}  // namespace

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

Process::Process(std::vector<std::string> command, std::string files, const std::string& input)
    : files_(std::move(files)) {
  std::vector<char*> arguments;
  for (std::string& word : command) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  constexpr int write_new = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  const std::array<int, 3> standard{
      checked(::open(input.c_str(), O_RDONLY | O_CLOEXEC), "cannot read the input"),
      checked(::open((files_ + ".out").c_str(), write_new, 0600), "cannot write the output"),
      checked(::open((files_ + ".err").c_str(), write_new, 0600), "cannot write the output")};
  pid_ = ::fork();
  if (pid_ == 0) {
    // Only calls that are safe in the child of a process with threads.
    ::setpgid(0, 0);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (int i = 0; i < 3; ++i) ::dup2(standard[static_cast<std::size_t>(i)], i);
    ::execvp(arguments[0], arguments.data());
    ::_exit(127);
  }
  for (const int file : standard) ::close(file);
  checked(pid_, "cannot start a process");
  ::setpgid(pid_, pid_);  // by whichever of the two comes first
}

Process::~Process() { kill(); }

void Process::signal(int number) const {
  if (status_ || ::kill(pid_, number) != 0 || number != SIGSTOP) return;
  // Its threads stop one after the other, and on a busy machine one may still serve a call.
  siginfo_t stopped;
  checked(::waitid(P_PID, static_cast<id_t>(pid_), &stopped, WSTOPPED | WEXITED | WNOWAIT),
          "cannot wait for a process to stop");
}

void Process::kill() {
  if (!status_) ::kill(-pid_, SIGKILL);
  wait(std::chrono::seconds(10));
}

std::optional<int> Process::wait(std::chrono::milliseconds patience) {
  for (const auto end = steady_clock::now() + patience; !status_;) {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    } else if (steady_clock::now() >= end) {
      break;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
  return status_;
}

std::string Process::out() const { return read_all(files_ + ".out"); }
std::string Process::err() const { return read_all(files_ + ".err"); }

int Process::sockets() const {
  int count = 0;
  std::error_code gone;
  for (const auto& file : fs::directory_iterator("/proc/" + std::to_string(pid_) + "/fd")) {
    count += fs::read_symlink(file, gone).string().rfind("socket:", 0) == 0;
  }
  return count;
}

int Process::threads() const {
  const fs::directory_iterator tasks("/proc/" + std::to_string(pid_) + "/task");
  return static_cast<int>(std::distance(tasks, fs::directory_iterator()));
}

long Process::resident_kib() const {
  long size = 0;
  long pages = 0;
  std::ifstream("/proc/" + std::to_string(pid_) + "/statm") >> size >> pages;
  return pages * (::sysconf(_SC_PAGESIZE) / 1024);
}

int free_port() {
  static std::mt19937 random(std::random_device{}());
  for (int tries = 0; tries < 100; ++tries) {
    const int port = std::uniform_int_distribution<int>(15000, 32000)(random);
    const int socket = new_socket();
    const sockaddr_in address = loopback(port);
    const int bound = ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    ::close(socket);
    if (bound == 0) return port;
  }
  throw std::runtime_error("there is no free port");
}

std::string request(const std::string& operation, const std::vector<unsigned int>& arguments) {
  std::string body;
  const auto number = [&](unsigned int value) {
    body.append((4 - body.size() % 4) % 4, '\0');
    body.append(reinterpret_cast<const char*>(&value), 4);
  };
  const auto octets = [&](const std::string& text) {
    number(static_cast<unsigned int>(text.size()));
    body += text;
  };
  number(0);  // no service contexts
  number(1);  // the request's number
  body += '\1';
  octets(object_key);
  octets(operation + '\0');
  octets("");
  for (const unsigned int argument : arguments) number(argument);
  const auto size = static_cast<unsigned int>(body.size());
  return std::string("GIOP\1\0\1\0", 8) + std::string(reinterpret_cast<const char*>(&size), 4) +
         body;
}

RawConnection::RawConnection(int port) : socket_(new_socket()) {
  const sockaddr_in address = loopback(port);
  checked(::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
          "cannot connect");
}

RawConnection::~RawConnection() { ::close(socket_); }

void RawConnection::send(const std::string& bytes) const {
  // A server that has closed already is no failure: that is what the tests look for.
  (void)::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void RawConnection::send_what_fits(const std::string& bytes) const {
  (void)::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

bool RawConnection::closed_by_peer(std::chrono::milliseconds patience) const {
  for (const auto end = steady_clock::now() + patience; steady_clock::now() < end;) {
    pollfd readable{socket_, POLLIN, 0};
    std::array<char, 4096> chunk;
    if (::poll(&readable, 1, 10) == 1 && ::recv(socket_, chunk.data(), chunk.size(), 0) <= 0) {
      return true;
    }
  }
  return false;
}

}  // namespace portsvc
