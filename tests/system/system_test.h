// What every system test works with: a folder, servers in processes of their own that find each
// other, portctl, and a client of the broker for what portctl is not precise enough for.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "idl/port_codes.h"
#include "middleware/orb/orb.h"
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
  Process& process(const std::string& name) { return *servers_.at(name); }
  void kill(const std::string& name);
  /// Sends `signal` and answers the exit status, -1 when it did not end within ten seconds.
  int stop(const std::string& name, int signal);

  /// Runs portctl on a server and waits for its end.
  Outcome portctl(const std::string& server, const Words& arguments,
                  const std::string& input = "/dev/null");
  /// As portctl(), for a command that must succeed: answers its output.
  std::string done(const std::string& server, const Words& arguments);
  std::unique_ptr<Process> in_background(const std::string& server, const Words& arguments,
                                         const std::string& input = "/dev/null");
  Outcome outcome(Process& process, std::chrono::milliseconds patience = 30s);

  /// Runs a server that is to end by itself, for its arguments.
  Outcome ended_server(const Words& arguments);
  /// A request from a client at one server, answered by an owner at another.
  void expect_exchange(const std::string& port, const std::string& owner_at,
                       const std::string& client_at);
  /// True once sub1 has met the main server: it then answers as that does.
  bool sub1_knows_main();
  /// How often `text` stands on a server's log.
  int times_said(const std::string& server, const std::string& text);
  /// Writes the directory, with this entry of the main server.
  void point_main_at(const std::string& reference);

  /// The broker of the test, started at the first use, with an endpoint if it is to serve.
  orb::Broker& broker(const std::string& endpoint = "");
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

inline std::chrono::milliseconds since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               start);
}

}  // namespace portsvc
