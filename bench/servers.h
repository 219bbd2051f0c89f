// What every section of port_bench works with: the settings of the run, and the port services it
// starts.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "bench/calls.h"
#include "bench/measure.h"
#include "bench/processes.h"
#include "bench/table.h"
#include "middleware/orb/orb.h"

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

/// A server in a process of its own on a free port of the loopback.
class Server {
 public:
  /// Starts `command`, to which "--ior-file FILE" is added, and waits until it serves. `name` is
  /// unlike that of any other server of the run.
  Server(const Bench& bench, const std::string& name, std::vector<std::string> command);

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

/// How a server may end its waits, for its option --waits; the one that counts first.
constexpr std::array<const char*, 2> server_waits{{"early", "paused"}};

/// The command of a main server, with its own way to wait unless one is named.
std::vector<std::string> main_server(const Bench& bench, const std::string& name,
                                     const std::string& waits = "");
/// The command of a sub server that finds its main server in a directory file.
std::vector<std::string> sub_server(const Bench& bench, const std::string& name,
                                    const std::string& main, const std::string& directory);
/// The command of a server whose servant does nothing. Its handles mean sizes: packet_receive_n
/// answers `count` payloads of `id` bytes each, packet_replay_wait one of `handle` bytes.
std::vector<std::string> empty_server();
/// The command of a server of the waking servant.
std::vector<std::string> waking_server();
/// This program, for the roles it plays in other processes.
std::string own_path();

/// Makes the caller a client of the port; its handle.
CORBA::ULong connect_client(Port_Factory_ptr server, const std::string& port,
                            CORBA::ULong access = ACCESS_WAIT);
/// Makes the caller the owner of the port; the port's id.
CORBA::ULong connect_owner(Port_Factory_ptr server, const std::string& port,
                           CORBA::ULong access = ACCESS_WAIT);

/// Lets clients forward to the port at any time, whether its owner takes or not: the port is
/// watched by a selection that never ends. The caller becomes the owner; the port's id.
CORBA::ULong own_and_admit_always(Port_Factory_ptr server, const std::string& port);

}  // namespace portsvc::bench
