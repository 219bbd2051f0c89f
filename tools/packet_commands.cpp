// send, receive, serve and select: packets through ports.
#include <fmt/core.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "idl/port_codes.h"
#include "platform/file.h"
#include "platform/streams.h"
#include "portsvc/stubs.h"
#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/input.h"
#include "tools/interrupt.h"
#include "tools/message_limit.h"
#include "tools/output.h"
#include "tools/owner.h"
#include "tools/progress.h"
#include "tools/shell_command.h"

namespace portsvc::tools {
namespace {

using Varo::DT_PORT_SVC::Port_Factory_ptr;

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

class Sender {
 public:
  Sender(Session& session, const SendOptions& options)
      : session_(session), options_(options), client_(connect(session, options)) {}

  void send(const std::string& payload) {
    check_size(payload.size(), session_.options().max_message);
    const client::Result sent = with_payload(session_.server(), payload.size(), [&] {
      return options_.front ? send_front(payload)
                            : client_.send(payload, timeout_of(options_.timeout));
    });
    session_.check("send to " + options_.port, sent);
  }

  std::string reply() {
    client::Payload reply;
    session_.check("wait for the reply of " + options_.port,
                   client_.wait_reply(reply, timeout_of(options_.timeout)));
    return std::string(reply.text());
  }

 private:
  static client::Client connect(Session& session, const SendOptions& options) {
    try {
      return client::Client(session.server(), options.port,
                            options.no_block ? client::Access::select : client::Access::wait);
    } catch (const client::Error& error) {
      if (error.result() != result::access_refused) throw;
      throw client::Error(
          options.port + " is an event box (see: portctl event put): " + error.result().text(),
          error.result());
    }
  }

  // Packet ports drop such a packet, so the library has no call for it.
  client::Result send_front(const std::string& payload) const {
    Varo::DATA_BUFFER data;
    data.length(static_cast<CORBA::ULong>(payload.size()));
    std::copy(payload.begin(), payload.end(), data.get_buffer());
    return client::call(session_.server(), [&](Port_Factory_ptr server) {
      CORBA::ULong handle = 0;
      CORBA::ULong owner = 0;
      unsigned int code =
          server->connect_port(options_.port.c_str(), handle, CONNECT_CLIENT, ACCESS_WAIT, owner);
      if (code != result::ok) return code;
      code = server->packet_foward_front(handle, data, options_.timeout);
      (void)server->disconnect_port(handle);
      return code;
    });
  }

  Session& session_;
  const SendOptions& options_;
  client::Client client_;
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
      write_output((is_terminal(standard_output) ? shown_on_terminal(reply) : reply) + "\n");
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
  if (!is_terminal(standard_output)) return write_output(reply);
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

// Answers the sender of a packet. One that has gone meanwhile is no reason to stop.
void answer(Session& session, client::Owner& owner, const client::Sender& sender,
            const std::string& reply) {
  check_size(reply.size(), session.options().max_message);
  const client::Result answered =
      with_payload(session.server(), reply.size(), [&] { return owner.reply(sender, reply); });
  if (!answered) {
    warn(fmt::format("answer client {} of {}: {}", sender.handle, owner.port(), answered.text()));
  }
}

std::optional<std::uint64_t> total_of(unsigned int count) {
  return count == 0 ? std::nullopt : std::optional<std::uint64_t>(count);
}

void receive(Session& session, const ReceiveOptions& options) {
  PayloadPrinter printer({session.options().json, options.raw, options.file});
  auto owner = own<client::Owner>(session, options.port, options.owner);
  // A take that waits must not take anything once nobody reads it.
  std::atomic<bool> reader_gone{false};
  const ReaderWatch watch(printer.sink(), [&] {
    reader_gone = true;
    owner.cancel();
  });
  client::Packet packet;
  Progress progress("packets", total_of(options.count), options.file.empty());
  try {
    for (unsigned int taken = 0; options.count == 0 || taken < options.count; ++taken) {
      printer.sink().wait_for_room();
      const client::Result received = owner.receive(packet, timeout_of(options.timeout));
      if (!received && reader_gone) throw ReaderGone();
      session.check("receive from " + options.port, received);
      try {
        printer.print(packet.data.text(), options.port, packet.from.handle);
      } catch (const std::exception&) {
        warn(fmt::format("a packet of {} bytes was taken and could not be shown",
                         packet.data.size()));
        throw;
      }
      if (options.reply) answer(session, owner, packet.from, *options.reply);
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
  Handlers(Session& session, const ServeOptions& options, client::Owner& owner)
      : session_(session), options_(options), owner_(owner) {}
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

  void start(const client::Packet& packet) {
    const std::lock_guard<std::mutex> guard(mutex_);
    ++running_;
    std::thread([this, sender = packet.from, input = std::string(packet.data.text())] {
      const bool good = handle(sender, input);
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

  bool handle(const client::Sender& sender, const std::string& input) const {
    try {
      const CommandResult done = run_shell_command(options_.command, input);
      const bool good = done.status == 0;
      if (!good) {
        warn(fmt::format("client {} of {}: the command ended with status {}", sender.handle,
                         options_.port, done.status));
      }
      if (good || options_.on_error == "reply") answer(session_, owner_, sender, done.output);
      return good;
    } catch (const Interrupted&) {
      return true;
    } catch (const std::exception& error) {
      warn(fmt::format("no answer to client {}: {}", sender.handle, error.what()));
    }
    return false;
  }

  Session& session_;
  const ServeOptions& options_;
  client::Owner& owner_;
  std::mutex mutex_;  // guards what follows; nothing is called under it
  std::condition_variable changed_;
  unsigned int running_ = 0;
  unsigned int failures_ = 0;
};

void serve(Session& session, const ServeOptions& options) {
  auto owner = patiently(session, options.reconnect,
                         [&] { return own<client::Owner>(session, options.port, options.owner); });
  Handlers handlers(session, options, owner);  // a client must be answered while there is an owner
  client::Packet packet;
  try {
    for (unsigned int taken = 0;
         (options.count == 0 || taken < options.count) && handlers.wait_for_room(); ++taken) {
      session.check("receive from " + options.port, owner.receive(packet));
      handlers.start(packet);
    }
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
  client::Connection& server = session.server();
  client::OwnerOptions selecting;
  selecting.access = client::Access::select;
  std::deque<client::Owner> owners;
  std::vector<client::Owner*> watched;
  for (const std::string& port : options.ports) {
    watched.push_back(&owners.emplace_back(server, port, selecting));
  }
  client::Owner* ready = nullptr;
  session.check("select", client::select(watched, ready, timeout_of(options.timeout)));

  client::Packet packet;
  if (options.receive) {
    session.check("receive from " + ready->port(), ready->receive(packet, std::chrono::seconds(0)));
  }
  if (session.options().json) {
    Json object{{"port", ready->port()}, {"port_id", ready->port_id()}};
    if (options.receive) {
      object["source"] = packet.from.handle;
      object.update(payload_json(std::string(packet.data.text())));
    }
    print_json(object);
  } else {
    if (!options.raw) write_output(ready->port() + "\n");
    flush_output();
    if (options.receive) {
      PayloadPrinter({false, options.raw, ""}).print(packet.data.text(), ready->port());
    }
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
