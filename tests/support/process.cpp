#include "tests/support/process.h"

#include <ace/ACE.h>
#include <ace/INET_Addr.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Connector.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <boost/algorithm/string/replace.hpp>
#include <filesystem>
#include <random>
#include <sstream>
#include <system_error>

#include "idl/port_codes.h"
#include "tests/support/folder.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

std::string quoted(const std::string& word) {
  return " '" + boost::replace_all_copy(word, "'", "'\\''") + "'";
}

std::string shell_line(const Words& command, const std::string& files, const std::string& input) {
  // Nobody may find there what an earlier process has written.
  for (const char* file : {".out", ".err"}) write_all(files + file, "");
  std::string line = "exec";
  for (const std::string& word : command) line += quoted(word);
  return line + " <" + quoted(input) + " >" + quoted(files + ".out") + " 2>" +
         quoted(files + ".err");
}

/// A field of /proc/PID/stat, numbered from 1 as in proc(5).
double stat_field(pid_t pid, int number) {
  const std::string text = read_all("/proc/" + std::to_string(pid) + "/stat");
  // The second, a name in parentheses, may hold spaces: count from behind it.
  std::istringstream words(text.substr(text.rfind(')') + 1));
  std::string skipped;
  for (int i = 3; i < number; ++i) words >> skipped;
  double value = 0;
  words >> value;
  return value;
}

}  // namespace

Words server_words(const std::string& role, const std::string& name, int port,
                   const std::string& folder) {
  const std::string address = "giop:tcp:127.0.0.1:" + std::to_string(port);
  const Words words{role, "--name", name, "--endpoint", address};
  return words +
         Words{"--state-dir", folder + "/" + name, "--ior-file", folder + "/" + name + ".ior"};
}

Words naming_words(int port, const std::string& folder) {
  const std::string number = std::to_string(port);
  return {
      "omniNames",   "-start",  number,          "-datadir",     folder,
      "-nohostname", "-errlog", folder + "/log", "-ORBendPoint", "giop:tcp:127.0.0.1:" + number};
}

std::string directory_entry(const std::string& name, const std::string& role,
                            const std::string& reference) {
  return "[" + name + "]\nrole = " + role + "\nreference = " + reference + "\n";
}

Process::Process(const Words& command, std::string files, const std::string& input)
    : files_(std::move(files)), child_(shell_line(command, files_, input), SIGKILL) {}

bool Process::serves() const {
  return eventually([&] { return !running() || !out().empty(); }) && running();
}

std::string Process::out() const { return read_all(files_ + ".out"); }
std::string Process::err() const { return read_all(files_ + ".err"); }

int Process::sockets() const {
  int count = 0;
  std::error_code gone;
  for (const auto& file :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid()) + "/fd")) {
    count += std::filesystem::read_symlink(file, gone).string().rfind("socket:", 0) == 0;
  }
  return count;
}

int Process::threads() const { return static_cast<int>(stat_field(pid(), 20)); }

long Process::resident_kib() const {
  return static_cast<long>(stat_field(pid(), 24)) * (::sysconf(_SC_PAGESIZE) / 1024);
}

double Process::cpu_seconds() const {
  return (stat_field(pid(), 14) + stat_field(pid(), 15)) /
         static_cast<double>(::sysconf(_SC_CLK_TCK));
}

void allow_many_connections() { ACE::set_handle_limit(-1); }

int free_port() {
  static std::mt19937 random(std::random_device{}());
  for (;;) {
    const auto port = std::uniform_int_distribution<u_short>(15000, 32000)(random);
    ACE_SOCK_Acceptor probe;
    if (probe.open(ACE_INET_Addr(port, ACE_LOCALHOST)) != 0) continue;
    probe.close();
    return port;
  }
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
  number(1);                               // the request's number
  body += std::string("\3\0\0\0\0\0", 6);  // a reply is wanted; the server is named by its key
  octets(object_key);
  octets(operation + '\0');
  number(0);  // no service contexts
  while (!arguments.empty() && body.size() % 8 != 4) body += '\0';
  for (const unsigned int argument : arguments) number(argument);
  const auto size = static_cast<unsigned int>(body.size());
  return std::string("GIOP\1\2\1\0", 8) + std::string(reinterpret_cast<const char*>(&size), 4) +
         body;
}

RawConnection::RawConnection(int port) {
  const ACE_INET_Addr address(static_cast<u_short>(port), ACE_LOCALHOST);
  if (ACE_SOCK_Connector().connect(stream_, address) != 0 || stream_.enable(ACE_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot connect");
  }
}

void RawConnection::send(const std::string& bytes) const {
  (void)stream_.send_n(bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void RawConnection::send_what_fits(const std::string& bytes) const {
  (void)stream_.send(bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

bool RawConnection::closed_by_peer(std::chrono::milliseconds patience) const {
  const auto end = std::chrono::steady_clock::now() + patience;
  const ACE_Time_Value soon(0, 10000);
  std::array<char, 4096> chunk;
  while (std::chrono::steady_clock::now() < end) {
    const ssize_t got = stream_.recv(chunk.data(), chunk.size(), &soon);
    if (got == 0 || (got < 0 && errno != ETIME)) return true;
  }
  return false;
}

}  // namespace portsvc
