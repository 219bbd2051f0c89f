// What every system test works with: a folder, servers in processes of their own that find each
// other, portctl, and a client of the broker for what portctl is not precise enough for.
#pragma once

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <signal.h>

#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "tests/support/calls.h"
#include "tests/support/folder.h"
#include "tests/support/process.h"
#include "tests/support/threads.h"

// At the head of tests that speak the options, the trace or the TLS of one broker, or look at what
// the other cannot do.
#if defined(PORTSVC_ORB_TAO)
#define NEEDS_OMNIORB() GTEST_SKIP() << "not with this broker"
#else
#define NEEDS_OMNIORB() static_cast<void>(0)
#endif

namespace portsvc {

using namespace std::chrono_literals;
using nlohmann::json;
using std::chrono::steady_clock;
using ::testing::HasSubstr;
using Varo::DT_PORT_SVC::Port_Factory_ptr;
using Varo::DT_PORT_SVC::Port_Factory_var;

/// How a command that has ended did.
struct Outcome {
  int status;  ///< -1 when it had not ended in time
  std::string out;
  std::string err;
};

/// Servers named main, sub1 and sub2, each entered in one directory with an address of its own and
/// started when the test says so. At the end of a test those that it has not stopped must still
/// run, and no sanitizer may have complained about any.
class SystemTest : public ::testing::Test {
 protected:
  SystemTest();
  void TearDown() override;

  /// Starts a server, anew if it runs, and waits until it serves.
  Process& start(const std::string& name, const Words& options = {});
  /// As start(), and answers its reference.
  Port_Factory_var serving(const std::string& name, const Words& options = {}) {
    start(name, options);
    return server(name);
  }
  Process& process(const std::string& name) { return *servers_.at(name); }
  void kill(const std::string& name);
  /// Sends `signal` and answers the exit status, -1 when it did not end within ten seconds.
  int stop(const std::string& name, int signal);

  /// Runs portctl on a server and waits for its end.
  Outcome portctl(const std::string& server, const Words& arguments,
                  const std::string& input = "/dev/null");
  /// As portctl(), for a command that must succeed: answers its output.
  std::string done(const std::string& server, const Words& arguments);
  /// As portctl(), for a command that answers in JSON.
  json told(const std::string& server, const Words& arguments) {
    return json::parse(portctl(server, Words{"--json"} + arguments).out);
  }
  std::unique_ptr<Process> in_background(const std::string& server, const Words& arguments,
                                         const std::string& input = "/dev/null");
  Outcome outcome(Process& process, std::chrono::milliseconds patience = 30s);

  /// Runs any program to its end.
  Outcome ran(const Words& command);
  /// Runs a server that is to end by itself, for its arguments.
  Outcome ended_server(const Words& arguments) { return ran(Words{PORT_SERVER} + arguments); }
  /// Of a program that had to fail: it says why in one line, and nothing else.
  static void expect_failure(const Outcome& ended, int status, const std::string& why);
  /// A request from a client at one server, answered by an owner at another.
  void expect_exchange(const std::string& port, const std::string& owner_at,
                       const std::string& client_at);
  /// True once sub1 has met the main server: it then answers as that does.
  bool sub1_knows_main();
  /// How often `text` stands on a server's log.
  int times_said(const std::string& server, const std::string& text);
  /// Writes the directory, with this entry of the main server.
  void point_main_at(const std::string& reference);

  /// The broker of the test, started at the first use.
  orb::Broker& broker();
  /// The reference of a server that runs. After a restart ask for it again.
  Port_Factory_var server(const std::string& name);
  std::string corbaloc(const std::string& name) const;
  int port(const std::string& name) const { return ports_.at(name); }

  /// From here on servers, portctl and the broker of the test use TLS alone.
  void use_tls(const orb::Tls& tls);

  const TemporaryFolder folder;
  Words directory;  ///< the options that name it

 private:
  Words tls_words() const;
  std::string files(const std::string& of) { return folder.path(of + std::to_string(++started_)); }
  void expect_no_complaint(const std::string& name);

  std::map<std::string, int> ports_;
  int started_ = 0;
  orb::Tls tls_;
  std::unique_ptr<orb::Broker> broker_;
  std::map<std::string, std::unique_ptr<Process>> servers_;
};

/// A client's whole exchange: sends `data` and answers the reply.
Reply ask(Port_Factory_ptr server, unsigned int handle, const std::string& data,
          unsigned int timeout);

/// Owns `port` at `server` and answers `count` packets with "re:" and their payload.
void answer_packets(Port_Factory_ptr server, const std::string& port, int count);

inline std::chrono::milliseconds since(steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - start);
}

}  // namespace portsvc
