// What a service manager hears of a server.
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "tests/system/system_test.h"

namespace portsvc {
namespace {

class ServiceManager : public SystemTest {
 protected:
  ServiceManager() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    folder.path("notify").copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::setenv("NOTIFY_SOCKET", address.sun_path, 1);
    ::setenv("WATCHDOG_USEC", "1000000", 1);
  }
  ~ServiceManager() override {
    ::unsetenv("NOTIFY_SOCKET");
    ::unsetenv("WATCHDOG_USEC");
    ::close(socket_);
  }

  /// The next message, empty when none comes within `patience`.
  std::string heard(std::chrono::milliseconds patience) const {
    const timeval time{patience.count() / 1000, patience.count() % 1000 * 1000};
    ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
    std::string message(4096, '\0');
    const ssize_t size = ::recv(socket_, message.data(), message.size(), 0);
    message.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return message;
  }
  bool hears(const std::string& text) const {
    return eventually([&] { return heard(1s).find(text) != std::string::npos; });
  }

 private:
  const int socket_;
};

/// Holds a process's threads still, all but those of a name.
class HeldThreads {
 public:
  HeldThreads(pid_t process, const std::string& but) {
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
      std::string name;
      std::getline(std::ifstream(entry.path() / "comm"), name);
      if (name == but) continue;
      const pid_t thread = std::stoi(entry.path().filename());
      EXPECT_EQ(::ptrace(PTRACE_SEIZE, thread, nullptr, nullptr), 0);
      EXPECT_EQ(::ptrace(PTRACE_INTERRUPT, thread, nullptr, nullptr), 0);
      EXPECT_EQ(::waitpid(thread, nullptr, __WALL), thread);
      threads_.push_back(thread);
    }
  }
  ~HeldThreads() {
    for (const pid_t thread : threads_) ::ptrace(PTRACE_DETACH, thread, nullptr, nullptr);
  }
  HeldThreads(const HeldThreads&) = delete;
  HeldThreads& operator=(const HeldThreads&) = delete;

 private:
  std::vector<pid_t> threads_;
};

TEST_F(ServiceManager, HearsThatAServerIsReadyAliveAsLongAsItAnswersAndStopping) {
  start("main");
  EXPECT_TRUE(hears("READY=1\nSTATUS=main main serving at corbaloc:"));
  EXPECT_TRUE(hears("WATCHDOG=1"));
  {
    const HeldThreads held(process("main").pid(), "heartbeat");
    EXPECT_TRUE(hears("STATUS=does not answer"));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(heard(1s).find("WATCHDOG"), std::string::npos);
  }
  EXPECT_TRUE(hears("STATUS=main main serving"));
  EXPECT_TRUE(hears("WATCHDOG=1"));
  EXPECT_EQ(stop("main", SIGTERM), 0);
  EXPECT_TRUE(hears("STOPPING=1"));
}

}  // namespace
}  // namespace portsvc
