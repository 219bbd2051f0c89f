// send, receive, serve and select: packets through ports.
#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "idl/port_codes.h"
#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/input.h"
#include "tools/message_limit.h"
#include "tools/output.h"
#include "tools/owner.h"
#include "tools/progress.h"
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
  command.add_option("--file", options.payload.file, "Send the bytes of this file")
      ->option_text("FILE");
  command.add_flag("--lines", options.lines, "Send each line of standard input as a packet");
  command.add_flag("--wait", options.wait, "Wait for the owner's reply and print its bytes");
  command
      .add_option("--timeout", options.timeout,
                  "Seconds to wait for the owner to take a packet, and for its reply; 0: as "
                  "long as it takes")
      ->option_text("SECONDS")
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
          return with_payload(server_, payload.size(), [&] {
            return options_.front
                       ? server_->packet_foward_front(connection_.handle(), data, seconds)
                       : server_->packet_foward(connection_.handle(), data, seconds);
          });
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

void send_lines(Session& session, const SendOptions& options) {
  Sender sender(session, options);
  LineReader reader;
  Progress progress("bytes", LineReader::bytes_in_all(), options.wait);
  while (const auto line = reader.next()) {
    sender.send(*line);
    progress.reached(reader.bytes());
    if (!options.wait) continue;
    const std::string reply = sender.reply();
    if (session.options().json) {
      print_json_line(payload_json(reply));
    } else {
      write_output((::isatty(STDOUT_FILENO) == 1 ? shown_on_terminal(reply) : reply) + "\n");
      flush_output();
    }
  }
}

void send(Session& session, const SendOptions& options) {
  if (options.lines) {
    if (options.payload.data || !options.payload.file.empty()) {
      throw UsageError("--lines reads standard input: give neither DATA nor --file");
    }
    return send_lines(session, options);
  }
  const std::string payload = read_payload(options.payload);
  Sender sender(session, options);
  sender.send(payload);
  if (!options.wait) return;
  const std::string reply = sender.reply();
  if (session.options().json) return print_json(payload_json(reply));
  if (::isatty(STDOUT_FILENO) != 1) return write_output(reply);
  const std::string shown = shown_on_terminal(reply);
  write_output(shown);
  if (shown.empty() || shown.back() != '\n') write_output("\n");
}

// --- receive and serve

struct ReceiveOptions {
  std::string port;
  unsigned int count = 1;
  unsigned int timeout = 0;
  bool raw = false;
  std::string file;
  std::optional<std::string> reply;
  OwnerOptions owner;
};

void describe_receive(CLI::App& command, ReceiveOptions& options) {
  command.add_option("NAME", options.port, "The port")->required();
  command.add_option("--count", options.count, "End after so many packets; 0: when interrupted")
      ->capture_default_str();
  command
      .add_option("--timeout", options.timeout,
                  "Seconds to wait for a packet; 0: as long as it takes")
      ->option_text("SECONDS")
      ->capture_default_str();
  command.add_flag("--raw", options.raw, "Print the bytes alone, without a newline after each");
  command.add_option("--file", options.file, "Write the bytes into this file")->option_text("FILE");
  command.add_option("--reply", options.reply, "Answer each packet with this text")
      ->option_text("TEXT");
  describe_owner(command, options.owner);
}

struct Packet {
  CORBA::ULong source = 0;
  Varo::DATA_BUFFER_var data;
};

// The next packet of the port that `owner` is connected to.
void take(Port_Factory_ptr server, CORBA::ULong owner, const std::string& port,
          unsigned int timeout, Packet& packet, const std::function<void()>& on_nothing) {
  const unsigned int code = wait_in_slices(timeout, result::timed_out, [&](unsigned int seconds) {
    const unsigned int answer =
        server->packet_receive(owner, packet.source, packet.data.out(), seconds);
    if (answer != result::ok) on_nothing();
    return answer;
  });
  check("receive from " + port, code);
}

// Answers the sender of a packet. One that has gone meanwhile is no reason to stop.
void answer(Port_Factory_ptr server, std::uint64_t max_message, const std::string& port,
            CORBA::ULong source, const std::string& reply) {
  check_size(reply.size(), max_message);
  const Varo::DATA_BUFFER data = to_buffer(reply);
  const unsigned int code =
      with_payload(server, reply.size(), [&] { return server->packet_replay(source, data, 0); });
  if (code != result::ok) {
    warn(fmt::format("answer client {} of {}: {}", source, port, code_text(code)));
  }
}

std::optional<std::uint64_t> total_of(unsigned int count) {
  return count == 0 ? std::nullopt : std::optional<std::uint64_t>(count);
}

void receive(Session& session, const ReceiveOptions& options) {
  PayloadPrinter printer({session.options().json, options.raw, options.file});
  Port_Factory_ptr server = session.server();
  const Owner owner(session, options.port, options.owner, &printer.sink());
  Packet packet;
  Progress progress("packets", total_of(options.count), options.file.empty());
  try {
    for (unsigned int taken = 0; options.count == 0 || taken < options.count; ++taken) {
      printer.sink().wait_for_room();
      take(server, owner.handle(), options.port, options.timeout, packet, [&] {
        if (owner.reader_gone()) throw ReaderGone();
        owner.throw_if_released();
      });
      try {
        printer.print(packet.data.in(), options.port, packet.source);
      } catch (const std::exception&) {
        warn(fmt::format("a packet of {} bytes was taken and could not be shown",
                         packet.data->length()));
        throw;
      }
      if (options.reply) {
        answer(server, session.options().max_message, options.port, packet.source, *options.reply);
      }
      progress.reached(taken + 1);
    }
  } catch (const Interrupted&) {
    if (options.count != 0) throw;
  }
}

// --- serve

struct ServeOptions {
  std::string port;
  std::string command;
  unsigned int count = 0;
  std::string on_error = "drop";
  unsigned int parallel = 1;
  OwnerOptions owner;
  Reconnect reconnect;
};

void describe_serve(CLI::App& command, ServeOptions& options) {
  command.add_option("NAME", options.port, "The port")->required();
  command
      .add_option("--exec", options.command,
                  "Shell command: gets each packet on its standard input, and what it prints "
                  "is the reply")
      ->option_text("COMMAND")
      ->required();
  command.add_option("--count", options.count, "End after so many packets; 0: when interrupted")
      ->capture_default_str();
  command
      .add_option("--on-error", options.on_error,
                  "When the command fails: drop answers nothing, reply answers what it printed, "
                  "stop answers nothing and ends. Each is logged; the exit status is then 1")
      ->capture_default_str()
      ->check(CLI::IsMember({"drop", "reply", "stop"}));
  command.add_option("--parallel", options.parallel, "Packets handled at the same time")
      ->capture_default_str()
      ->check(CLI::Range(1U, 1000U));
  describe_owner(command, options.owner);
  describe_reconnect(command, options.reconnect);
}

// Runs the command for packets, up to --parallel of them at the same time.
class Handlers {
 public:
  Handlers(const ServeOptions& options, std::uint64_t max_message)
      : options_(options), max_message_(max_message) {}
  ~Handlers() { wait(0); }
  Handlers(const Handlers&) = delete;
  Handlers& operator=(const Handlers&) = delete;

  // Waits until another packet can be handled. False when none is to be handled any more.
  bool wait_for_room() {
    wait(options_.parallel - 1);
    throw_if_interrupted();
    const std::lock_guard<std::mutex> guard(mutex_);
    return failures_ == 0 || options_.on_error != "stop";
  }

  void start(Port_Factory_ptr server, CORBA::ULong source, std::string input) {
    const std::lock_guard<std::mutex> guard(mutex_);
    ++running_;
    Port_Factory_var own = Port_Factory::_duplicate(server);
    std::thread([this, own, source, input = std::move(input)] {
      const bool good = handle(own, source, input);
      const std::lock_guard<std::mutex> done(mutex_);
      if (!good) ++failures_;
      --running_;
      changed_.notify_all();
    }).detach();  // the destructor waits for it
  }

  // Waits for the end of all and answers how many commands failed.
  unsigned int failures() {
    wait(0);
    return failures_;
  }

 private:
  void wait(unsigned int most) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return running_ <= most; });
  }

  bool handle(const Port_Factory_var& server, CORBA::ULong source, const std::string& input) const {
    try {
      const CommandResult done = run_shell_command(options_.command, input);
      const bool good = done.status == 0;
      if (!good) {
        warn(fmt::format("client {} of {}: the command ended with status {}", source, options_.port,
                         done.status));
      }
      if (good || options_.on_error == "reply") {
        const orb::CallTimeout limit;
        answer(server.in(), max_message_, options_.port, source, done.output);
      }
      return good;
    } catch (const Interrupted&) {
      return true;
    } catch (const CORBA::Exception& exception) {
      warn(fmt::format("no answer to client {}: {}", source, orb::describe(exception)));
    } catch (const std::exception& error) {
      warn(fmt::format("no answer to client {}: {}", source, error.what()));
    }
    return false;
  }

  const ServeOptions& options_;
  const std::uint64_t max_message_;
  std::mutex mutex_;  // guards what follows; nothing is called under it
  std::condition_variable changed_;
  unsigned int running_ = 0;
  unsigned int failures_ = 0;
};

void serve(Session& session, const ServeOptions& options) {
  Handlers handlers(options, session.options().max_message);
  unsigned int taken = 0;
  try {
    keep_connected(session, options.reconnect, [&](const std::function<void()>& connected) {
      Port_Factory_ptr server = session.server();
      const Owner owner(session, options.port, options.owner);
      connected();
      Packet packet;
      while ((options.count == 0 || taken < options.count) && handlers.wait_for_room()) {
        take(server, owner.handle(), options.port, 0, packet, [&] { owner.throw_if_released(); });
        ++taken;
        handlers.start(server, packet.source, to_bytes(packet.data.in()));
      }
      handlers.failures();  // a client must be answered while the port has its owner
    });
  } catch (const Interrupted&) {
    if (options.count != 0) throw;
  }
  const unsigned int failed = handlers.failures();
  if (failed != 0) throw Failure(fmt::format("{} packets were not answered well", failed));
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
      ->option_text("SECONDS")
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
  if (options.receive) take(server, ready, port, 0, packet, [] {});
  if (session.options().json) {
    Json object{{"port", port}, {"port_id", ready}};
    if (options.receive) {
      object["source"] = packet.source;
      object.update(payload_json(to_bytes(packet.data.in())));
    }
    print_json(object);
  } else {
    if (!options.raw) write_output(port + "\n");
    flush_output();
    if (options.receive) PayloadPrinter({false, options.raw, ""}).print(packet.data.in(), port);
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
