// What every section of port_bench works with: the settings of the run, and the port services it
// starts.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "bench/calls.h"
#include "bench/measure.h"
#include "bench/pinned.h"
#include "bench/table.h"
#include "middleware/orb/orb.h"
#include "tests/support/folder.h"

namespace portsvc::bench {

using Varo::DT_PORT_SVC::Port_Factory_ptr;
using Varo::DT_PORT_SVC::Port_Factory_var;

/// The payload of whatever has no other.
constexpr std::size_t small_payload = 100;

/// One run.
struct Bench {
  const std::string port_server;  ///< path of the program
  const bool quick;
  const Effort effort;
  const orb::Broker& broker;
  const TemporaryFolder& folder;
  Table& table;

  /// `full`, or a good deal less in a quick run.
  template <class Number>
  Number amount(Number full, Number in_quick_run) const {
    return quick ? in_quick_run : full;
  }
};

/// Polls until `done` is true. Throws, naming `what`, when that takes longer than `patience`, and
/// when the process ends meanwhile.
void await(const Process& process, const std::function<bool()>& done, std::chrono::seconds patience,
           const std::string& what);

/// A server in a process of its own on a free port of the loopback.
class Server {
 public:
  /// Starts `command`, one of those below of the same name, and waits until it serves. `name` is
  /// unlike that of any other server of the run.
  Server(const Bench& bench, const std::string& name, const Words& command);

  Port_Factory_ptr get() const { return reference_.in(); }
  Port_Factory_ptr operator->() const { return reference_.in(); }
  const Process& process() const { return process_; }
  /// The stringified reference.
  std::string reference() const;

 private:
  const std::string ior_file_;
  const Process process_;
  Port_Factory_var reference_;
};

/// The command of a main server.
Words main_server(const Bench& bench, const std::string& name);
/// The command of a sub server that finds its main server in a directory file.
Words sub_server(const Bench& bench, const std::string& name, const std::string& main,
                 const std::string& directory);
// Servants that this program serves. The empty one's handles mean sizes: packet_receive_n answers
// `count` payloads of `id` bytes each, packet_replay_wait one of `handle` bytes.
constexpr const char* empty_server = "empty-server";
constexpr const char* waking_server = "waking-server";
Words servant_server(const Bench& bench, const char* servant, const std::string& name);
/// This program, for the roles it plays in other processes.
std::string own_path();

/// Enters a server in a directory file.
void enter(const std::string& file, const std::string& server, const char* role,
           const std::string& reference);

/// Makes the caller a client of the port; its handle.
CORBA::ULong connect_client(Port_Factory_ptr server, const std::string& port);
/// Makes the caller the owner of the port; the port's id.
CORBA::ULong connect_owner(Port_Factory_ptr server, const std::string& port,
                           CORBA::ULong access = ACCESS_WAIT);

}  // namespace portsvc::bench
