// send, receive, serve and select: packets through ports.
#include <fmt/core.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "idl/port_codes.h"
#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/input.h"
#include "tools/output.h"
#include "tools/shell_command.h"
#include "tools/waiting.h"

namespace portsvc::tools {
namespace {

using Varo::DT_PORT_SVC::Port_Factory;
using Varo::DT_PORT_SVC::Port_Factory_ptr;
using Varo::DT_PORT_SVC::Port_Factory_var;

// --- send

struct SendOptions {
  std::string port;
  PayloadOptions payload;
  bool lines = false;
  bool wait = false;
  bool no_block = false;
  bool front = false;
  unsigned int timeout = 10;
};

void describe_send(CLI::App& command, SendOptions& options) {
  command.add_option("NAME", options.port, "The port")->required();
  command.add_option("DATA", options.payload.data,
                     "The payload (after -- when it starts with a dash); standard input when "
                     "neither DATA nor --file is given");
  command.add_option("--file", options.payload.file, "Send the bytes of this file");
  command.add_flag("--lines", options.lines, "Send each line of standard input as a packet");
  command.add_flag("--wait", options.wait, "Wait for the owner's reply and print its bytes");
  command
      .add_option("--timeout", options.timeout,
                  "Seconds to wait for the owner to take a packet, and for its reply; 0: as "
                  "long as it takes")
      ->capture_default_str();
  command.add_flag("--no-block", options.no_block, "Do not wait: ask once and report the code");
  command.add_flag("--front", options.front,
                   "Send with packet_foward_front, which packet ports accept and drop");
}

// A reply through a proxy: the proxy ends its connection to the main server with every wait,
// whether a reply came or not, so a second wait would miss the reply. The longest wait without a
// limit is one that nobody leaves behind for ever.
constexpr unsigned int longest_proxied_wait = 3600;

class Sender {
 public:
  Sender(Session& session, const SendOptions& options)
      : session_(session),
        options_(options),
        server_(session.server()),
        connection_(server_, options.port, CONNECT_CLIENT,
                    options.no_block ? ACCESS_SELECT : ACCESS_WAIT) {
    if (!options.wait) return;
    Varo::DT_PORT_SVC::PORT_INFO info{};
    check("look up " + options.port, server_->get_port_info(options.port.c_str(), info));
    through_proxy_ = info.kind == PORT_SLAVE;
  }

  void send(const std::string& payload) {
    check_size(payload.size(), session_.options().max_message);
    const Varo::DATA_BUFFER data = to_buffer(payload);
    // A send whose time-out ran out has put nothing into the port, so it can be repeated.
    const unsigned int code =
        wait_in_slices(options_.timeout, result::send_timed_out, [&](unsigned int seconds) {
          return options_.front ? server_->packet_foward_front(connection_.handle(), data, seconds)
                                : server_->packet_foward(connection_.handle(), data, seconds);
        });
    if (code == result::unknown_handle) refuse_event_box();
    check("send to " + options_.port, code);
  }

  std::string reply() {
    struct Call {
      Port_Factory_var server;
      CORBA::ULong handle;
      Varo::DATA_BUFFER_var data;
    };
    auto call = std::make_shared<Call>();
    call->server = Port_Factory::_duplicate(server_);
    call->handle = connection_.handle();
    const auto wait = [call](unsigned int seconds) {
      return call->server->packet_replay_wait(call->handle, call->data.out(), seconds);
    };
    const unsigned int code =
        through_proxy_ ? wait_in_one_call(
                             options_.timeout == 0 ? longest_proxied_wait : options_.timeout, wait)
                       : wait_in_slices(options_.timeout, result::reply_timed_out, wait);
    check("wait for the reply of " + options_.port, code);
    return to_bytes(call->data.in());
  }

 private:
  // Event boxes let clients connect and then know none of them.
  void refuse_event_box() {
    Varo::DT_PORT_SVC::PORT_INFO info{};
    if (server_->get_port_info(options_.port.c_str(), info) == result::ok &&
        info.kind == PORT_EVENTBOX) {
      throw ResultError(options_.port + " is an event box (see: portctl event put)",
                        result::unknown_handle);
    }
  }

  Session& session_;
  const SendOptions& options_;
  Port_Factory_ptr server_;
  Connection connection_;
  bool through_proxy_ = false;
};

void send(Session& session, const SendOptions& options) {
  if (options.lines) {
    if (options.payload.data || !options.payload.file.empty()) {
      throw UsageError("--lines reads standard input: give neither DATA nor --file");
    }
    Sender sender(session, options);
    LineReader reader;
    while (const auto line = reader.next()) {
      sender.send(*line);
      if (!options.wait) continue;
      write_output(sender.reply() + "\n");
      flush_output();
    }
    return;
  }
  const std::string payload = read_payload(options.payload);
  Sender sender(session, options);
  sender.send(payload);
  if (options.wait) write_output(sender.reply());
}

// --- receive and serve

struct ReceiveOptions {
  std::string port;
  unsigned int count = 1;
  unsigned int timeout = 0;
  bool raw = false;
  std::string file;
  std::optional<std::string> reply;
};

void describe_receive(CLI::App& command, ReceiveOptions& options) {
  command.add_option("NAME", options.port, "The port")->required();
  command.add_option("--count", options.count, "End after so many packets; 0: when interrupted")
      ->capture_default_str();
  command
      .add_option("--timeout", options.timeout,
                  "Seconds to wait for a packet; 0: as long as it takes")
      ->capture_default_str();
  command.add_flag("--raw", options.raw, "Print the bytes alone, without a newline after each");
  command.add_option("--file", options.file, "Write the bytes into this file");
  command.add_option("--reply", options.reply, "Answer each packet with this text");
}

struct Packet {
  CORBA::ULong source = 0;
  Varo::DATA_BUFFER_var data;
};

// The next packet of the port that `owner` is connected to.
void take(Port_Factory_ptr server, const Connection& owner, const std::string& port,
          unsigned int timeout, Packet& packet) {
  const unsigned int code = wait_in_slices(timeout, result::timed_out, [&](unsigned int seconds) {
    return server->packet_receive(owner.handle(), packet.source, packet.data.out(), seconds);
  });
  check("receive from " + port, code);
}

// Answers the sender of a packet. One that has gone meanwhile is no reason to stop.
void answer(Session& session, const std::string& port, CORBA::ULong source,
            const std::string& reply) {
  check_size(reply.size(), session.options().max_message);
  const unsigned int code = session.server()->packet_replay(source, to_buffer(reply), 0);
  if (code != result::ok) {
    warn(fmt::format("answer client {} of {}: {}", source, port, code_text(code)));
  }
}

// Takes packets until `count` have been taken; with 0 until interrupted, which is then the
// command's regular end.
template <class Use>
void take_packets(Session& session, const std::string& port, unsigned int count,
                  unsigned int timeout, Use&& use) {
  Port_Factory_ptr server = session.server();
  const Connection owner(server, port, CONNECT_OWNER, ACCESS_WAIT);
  Packet packet;
  try {
    for (unsigned int taken = 0; count == 0 || taken < count; ++taken) {
      take(server, owner, port, timeout, packet);
      use(packet);
    }
  } catch (const Interrupted&) {
    if (count != 0) throw;
  }
}

void receive(Session& session, const ReceiveOptions& options) {
  PayloadPrinter printer({session.options().json, options.raw, options.file});
  take_packets(session, options.port, options.count, options.timeout, [&](const Packet& packet) {
    printer.print(packet.data.in(), packet.source);
    printer.flush();
    if (options.reply) answer(session, options.port, packet.source, *options.reply);
  });
}

struct ServeOptions {
  std::string port;
  std::string command;
  unsigned int count = 0;
};

void describe_serve(CLI::App& command, ServeOptions& options) {
  command.add_option("NAME", options.port, "The port")->required();
  command
      .add_option("--exec", options.command,
                  "Shell command: gets each packet on its standard input, and what it prints "
                  "is the reply")
      ->required();
  command.add_option("--count", options.count, "End after so many packets; 0: when interrupted")
      ->capture_default_str();
}

void serve(Session& session, const ServeOptions& options) {
  take_packets(session, options.port, options.count, 0, [&](const Packet& packet) {
    const CommandResult done = run_shell_command(options.command, to_bytes(packet.data.in()));
    // The client waits: it gets what there is, and the operator the reason.
    if (done.status != 0) warn(fmt::format("the command ended with status {}", done.status));
    try {
      answer(session, options.port, packet.source, done.output);
    } catch (const UsageError& error) {
      warn(fmt::format("no answer to client {}: {}", packet.source, error.what()));
    }
  });
}

// --- select

struct SelectOptions {
  std::vector<std::string> ports;
  unsigned int timeout = 0;
  bool receive = false;
  bool raw = false;
};

void describe_select(CLI::App& command, SelectOptions& options) {
  command.add_option("NAME", options.ports, "The packet ports to own and watch")->required();
  command
      .add_option("--timeout", options.timeout,
                  "Seconds to wait for a packet; 0: as long as it takes")
      ->capture_default_str();
  command.add_flag("--receive", options.receive, "Take the packet and print it after the name");
  command.add_flag("--raw", options.raw, "With --receive: print the packet's bytes alone");
}

void select(Session& session, const SelectOptions& options) {
  Port_Factory_ptr server = session.server();
  std::deque<Connection> owners;
  Varo::PORT_HANDLE_SET handles;
  handles.length(static_cast<CORBA::ULong>(options.ports.size()));
  for (std::size_t i = 0; i < options.ports.size(); ++i) {
    owners.emplace_back(server, options.ports[i], CONNECT_OWNER, ACCESS_SELECT);
    handles[static_cast<CORBA::ULong>(i)] = owners.back().handle();
  }
  CORBA::ULong ready = 0;
  check("select", wait_in_slices(options.timeout, result::timed_out, [&](unsigned int seconds) {
          return server->select_event_port(handles, ready, seconds);
        }));
  const auto owner = std::find_if(owners.begin(), owners.end(),
                                  [&](const Connection& each) { return each.handle() == ready; });
  if (owner == owners.end()) throw Failure("the server selected a port that it was not asked for");
  const std::string& port = options.ports[static_cast<std::size_t>(owner - owners.begin())];

  Packet packet;
  if (options.receive) take(server, *owner, port, 0, packet);
  if (session.options().json) {
    Json object{{"port", port}, {"port_id", ready}};
    if (options.receive) {
      object["source"] = packet.source;
      object.update(payload_json(to_bytes(packet.data.in())));
    }
    print_json(object);
  } else {
    if (!options.raw) write_output(port + "\n");
    if (options.receive) PayloadPrinter({false, options.raw, ""}).print(packet.data.in());
  }
}

}  // namespace

void add_packet_commands(Commands& commands) {
  commands.add<SendOptions>(commands.app, "send", "Send a packet to a port, as a client",
                            "send orders hello --wait", describe_send, send);
  commands.add<ReceiveOptions>(commands.app, "receive", "Own a port and take its packets",
                               "receive orders --count 3 --timeout 60", describe_receive, receive);
  commands.add<ServeOptions>(commands.app, "serve",
                             "Own a port and answer each packet with what a command prints",
                             "serve orders --exec 'tr a-z A-Z'", describe_serve, serve);
  commands.add<SelectOptions>(
      commands.app, "select", "Own several ports and print the first that has a packet",
      "select orders alarms --timeout 5 --receive", describe_select, select);
}

}  // namespace portsvc::tools
