// event put, declare, subscribe, watch, count, clear, persistent and copy.
#include <fmt/core.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "idl/port_codes.h"
#include "portsvc/stubs.h"
#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/input.h"
#include "tools/message_limit.h"
#include "tools/output.h"
#include "tools/owner.h"
#include "tools/progress.h"

namespace portsvc::tools {
namespace {

using Varo::DT_PORT_SVC::Port_Factory_ptr;

// --- putting events

struct PutOptions {
  std::string box;
  PayloadOptions payload;
};

void describe_put(CLI::App& command, PutOptions& options) {
  command.add_option("BOX", options.box, "The event box; a packet port drops the event")
      ->required();
  command.add_option("DATA", options.payload.data,
                     "The event; standard input when neither DATA nor --file is given");
  command.add_option("--file", options.payload.file, "Put the bytes of this file")
      ->option_text("FILE");
}

void put(Session& session, const PutOptions& options) {
  const std::string payload = read_payload(options.payload);
  check_size(payload.size(), session.options().max_message);
  client::Connection& server = session.server();
  session.check("put into " + options.box, with_payload(server, payload.size(), [&] {
                  return server.put(options.box, payload);
                }));
}

// An event code, written signed or unsigned: -1 and 4294967295 are the same code.
void add_code(CLI::App& command, std::int64_t& code) {
  command.add_option("CODE", code, "The event code")
      ->required()
      ->check(CLI::Range(std::int64_t{std::numeric_limits<std::int32_t>::min()},
                         std::int64_t{std::numeric_limits<std::uint32_t>::max()}));
}

struct DeclareOptions {
  std::int64_t code = 0;
  std::vector<std::string> data;
  std::string file;
  bool lines = false;

  unsigned int wire_code() const { return static_cast<std::uint32_t>(code); }
};

void describe_declare(CLI::App& command, DeclareOptions& options) {
  add_code(command, options.code);
  command.add_option("DATA", options.data,
                     "The events; standard input as one event when there is no other source");
  command.add_option("--file", options.file, "Declare the bytes of this file as one event")
      ->option_text("FILE");
  command.add_flag("--lines", options.lines, "Declare each line of standard input as an event");
}

// What an event adds to its bytes in a message: its length and up to three bytes of alignment.
constexpr std::size_t event_overhead = 8;

void declare_events(Session& session, unsigned int code, const std::vector<std::string>& events) {
  const std::vector<client::Bytes> list(events.begin(), events.end());
  std::size_t bytes = 0;
  for (const std::string& event : events) bytes += event.size() + event_overhead;
  check_size(bytes, session.options().max_message);
  client::Connection& server = session.server();
  session.check(fmt::format("declare event {}", code),
                with_payload(server, bytes, [&] { return server.declare(code, list); }));
}

// Lines that have arrived together go to the server together.
void declare_lines(Session& session, unsigned int code) {
  constexpr std::size_t most_events = 1000;
  const std::uint64_t most_bytes =
      std::min<std::uint64_t>(1 << 20, session.options().max_message / 2);
  LineReader reader;
  Progress progress("bytes", LineReader::bytes_in_all(), false);
  std::optional<std::string> line;
  while (line || (line = reader.next())) {
    std::vector<std::string> events;
    std::size_t bytes = 0;
    do {
      bytes += line->size() + event_overhead;
      events.push_back(std::move(*line));
      line.reset();
      if (reader.has_line()) line = reader.next();
    } while (line && events.size() < most_events && bytes + line->size() < most_bytes);
    declare_events(session, code, events);
    progress.reached(reader.bytes());
  }
}

void declare(Session& session, const DeclareOptions& options) {
  const int sources =
      (options.lines ? 1 : 0) + (options.file.empty() ? 0 : 1) + (options.data.empty() ? 0 : 1);
  if (sources > 1) throw UsageError("give the events as DATA, with --file or with --lines");
  if (options.lines) return declare_lines(session, options.wire_code());
  if (options.data.size() > 1) return declare_events(session, options.wire_code(), options.data);

  PayloadOptions payload;
  if (!options.data.empty()) payload.data = options.data.front();
  payload.file = options.file;
  const std::string event = read_payload(payload);
  check_size(event.size(), session.options().max_message);
  client::Connection& server = session.server();
  session.check(fmt::format("declare event {}", options.code),
                with_payload(server, event.size(),
                             [&] { return server.declare(options.wire_code(), event); }));
}

struct SubscribeOptions {
  std::string box;
  std::int64_t code = 0;
};

void describe_subscribe(CLI::App& command, SubscribeOptions& options) {
  command.add_option("BOX", options.box, "The event box; it need not exist yet")->required();
  add_code(command, options.code);
}

void subscribe(Session& session, const SubscribeOptions& options) {
  session.check(fmt::format("subscribe {} to event {}", options.box, options.code),
                session.server().subscribe(options.box, static_cast<std::uint32_t>(options.code)));
}

// --- taking events

struct WatchOptions {
  std::vector<std::string> boxes;
  unsigned int count = 0;
  unsigned int timeout = 0;
  unsigned int batch = 64;
  bool drain = false;
  bool raw = false;
  bool timestamps = false;
  std::string file;
  OwnerOptions owner;
  Reconnect reconnect;
};

void describe_watch(CLI::App& command, WatchOptions& options) {
  command.add_option("BOX", options.boxes, "The event boxes")->required();
  command.add_option("--count", options.count, "End after so many events; 0: when interrupted")
      ->capture_default_str();
  command
      .add_option("--timeout", options.timeout,
                  "Seconds to wait for an event; 0: as long as it takes")
      ->option_text("SECONDS")
      ->capture_default_str();
  command
      .add_option("--batch", options.batch,
                  "Events taken with one call, when the output is a terminal or a file; together "
                  "they must fit --max-message")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  command.add_flag("--drain", options.drain, "Take what is there and end");
  command.add_flag("--raw", options.raw, "Print the bytes alone, without a newline after each");
  command.add_flag("--timestamps", options.timestamps, "Print the time (UTC) before each event");
  command.add_option("--file", options.file, "Write the bytes into this file")->option_text("FILE");
  describe_owner(command, options.owner);
  describe_reconnect(command, options.reconnect);
}

class Watch {
 public:
  Watch(Session& session, const WatchOptions& options)
      : session_(session),
        options_(options),
        printer_({session.options().json, options.raw, options.file, options.timestamps,
                  options.boxes.size() > 1}),
        boxes_(patiently(session, options.reconnect, [&] { return own_all(); })),
        watch_(printer_.sink(), [this] {
          reader_gone_ = true;
          // A take that waits must not take anything for nobody.
          for (client::Box& box : boxes_) box.cancel();
        }) {
    for (client::Box& box : boxes_) in_turn_.push_back(&box);
  }

  // Takes and prints until all that was asked for is there.
  void run() {
    Progress progress("events", expected(), options_.file.empty());
    try {
      while (options_.count == 0 || taken_ < options_.count) {
        if (!take()) return;
        progress.reached(taken_);
      }
    } catch (const Interrupted&) {
      throw;
    } catch (const std::exception&) {
      put_back();
      throw;
    }
  }

 private:
  // An event that has been taken. As long as its bytes may lie in a pipe it is not forgotten.
  struct Taken {
    std::string box;
    client::Payload event;
    std::size_t bytes = 0;  // as shown
    bool shown = false;
  };

  std::deque<client::Box> own_all() {
    std::deque<client::Box> boxes;
    for (const std::string& box : options_.boxes) {
      boxes.push_back(own<client::Box>(session_, box, options_.owner));
    }
    return boxes;
  }

  // How many events there will be, as far as that is known.
  std::optional<std::uint64_t> expected() const {
    if (options_.count != 0) return options_.count;
    if (!options_.drain) return std::nullopt;
    std::uint64_t all = 0;
    for (const std::string& box : options_.boxes) {
      unsigned int held = 0;
      if (session_.server().count(box, held)) all += held;
    }
    return all;
  }

  // False when all boxes have been drained.
  bool take() {
    printer_.sink().wait_for_room();
    const unsigned int most = printer_.sink().is_steady() ? options_.batch : 1;
    const unsigned int wanted =
        options_.count == 0 ? most : std::min(most, options_.count - taken_);
    const client::Timeout timeout =
        options_.drain ? client::Timeout(std::chrono::seconds(0)) : timeout_of(options_.timeout);
    client::Box* from = in_turn_.front();
    std::vector<client::Payload> events;
    const client::Result taken = in_turn_.size() == 1
                                     ? from->take(events, wanted, timeout)
                                     : client::take(in_turn_, from, events, wanted, timeout);
    if (!taken) {
      if (reader_gone_) throw ReaderGone();
      if (options_.drain && taken == result::timed_out) return false;
      const bool one = options_.boxes.size() == 1;
      session_.check(one ? "watch " + options_.boxes.front() : "watch", taken);
    }
    show(from->name(), std::move(events));
    // The others first, the next time.
    std::rotate(in_turn_.begin(), std::find(in_turn_.begin(), in_turn_.end(), from) + 1,
                in_turn_.end());
    return true;
  }

  void show(const std::string& box, std::vector<client::Payload> events) {
    taken_ += static_cast<unsigned int>(events.size());
    const std::size_t first = recent_.size();
    for (client::Payload& event : events) recent_.push_back({box, std::move(event)});
    for (std::size_t i = first; i < recent_.size(); ++i) {
      recent_[i].bytes = printer_.print(recent_[i].event.text(), box);
      recent_[i].shown = true;
      shown_ += recent_[i].bytes;
    }
    forget_what_was_read();
  }

  void forget_what_was_read() {
    const std::size_t unread = printer_.sink().unread();
    while (!recent_.empty() && recent_.front().shown && shown_ - recent_.front().bytes >= unread) {
      shown_ -= recent_.front().bytes;
      recent_.pop_front();
    }
  }

  // What nobody has read goes back into its box, at the end.
  void put_back() {
    if (reader_gone(printer_.sink().fd())) {
      forget_what_was_read();
    } else {
      while (!recent_.empty() && recent_.front().shown) recent_.pop_front();
    }
    for (const Taken& taken : recent_) {
      if (const client::Result put = session_.server().put(taken.box, taken.event); !put) {
        warn(fmt::format("an event taken from {} could not be shown, nor put back: {}", taken.box,
                         put.text()));
      }
    }
    recent_.clear();
  }

  Session& session_;
  const WatchOptions& options_;
  PayloadPrinter printer_;
  std::deque<Taken> recent_;
  std::size_t shown_ = 0;  // the sum of their bytes
  unsigned int taken_ = 0;
  std::atomic<bool> reader_gone_{false};
  std::deque<client::Box> boxes_;
  std::vector<client::Box*> in_turn_;
  const ReaderWatch watch_;  // goes before the boxes that it cancels
};

void watch(Session& session, const WatchOptions& options) {
  try {
    Watch(session, options).run();
  } catch (const Interrupted&) {
    if (options.count != 0) throw;
  }
}

// --- the state of a box

struct BoxOptions {
  std::string box;
};

void describe_box(CLI::App& command, BoxOptions& options) {
  command.add_option("BOX", options.box, "The event box")->required();
}

void count(Session& session, const BoxOptions& options) {
  unsigned int events = 0;
  session.check("count the events of " + options.box, session.server().count(options.box, events));
  if (session.options().json) {
    print_json({{"box", options.box}, {"events", events}});
  } else {
    write_output(fmt::format("{}\n", events));
  }
}

void clear(Session& session, const BoxOptions& options) {
  session.check("clear " + options.box, session.server().clear(options.box));
}

struct SwitchOptions {
  std::string box;
  std::string state;
};

void describe_switch(CLI::App& command, SwitchOptions& options) {
  command.add_option("BOX", options.box, "The event box")->required();
  command.add_option("STATE", options.state, "on or off")
      ->required()
      ->check(CLI::IsMember({"on", "off"}));
}

void persistent(Session& session, const SwitchOptions& options) {
  session.check("set persistence of " + options.box,
                session.server().set_persistent(options.box, options.state == "on"));
}

void copy(Session& session, const SwitchOptions& options) {
  const auto enable = [&](Port_Factory_ptr server) {
    return static_cast<unsigned int>(
        server->copy_enable(options.box.c_str(), options.state == "on" ? 1 : 0));
  };
  session.check("set copying of " + options.box, client::call(session.server(), enable));
}

}  // namespace

void add_event_commands(Commands& commands) {
  CLI::App* event = commands.app.add_subcommand("event", "Events and event boxes");
  event->require_subcommand(1);
  commands.add<PutOptions>(*event, "put", "Put an event into one box",
                           "event put alarms 'oven 3 hot'", describe_put, put);
  commands.add<DeclareOptions>(*event, "declare", "Put events into every box of an event code",
                               "event declare 42 'oven 3 hot'", describe_declare, declare);
  commands.add<SubscribeOptions>(*event, "subscribe", "Let a box have the events of a code",
                                 "event subscribe alarms 42", describe_subscribe, subscribe);
  add_subscriptions_command(commands, *event);
  commands.add<WatchOptions>(*event, "watch", "Own event boxes and print their events",
                             "event watch alarms --count 10", describe_watch, watch);
  commands.add<BoxOptions>(*event, "count", "Print how many events a box holds",
                           "event count alarms", describe_box, count);
  commands.add<BoxOptions>(*event, "clear", "Drop the events of a box", "event clear alarms",
                           describe_box, clear);
  commands.add<SwitchOptions>(*event, "persistent",
                              "Keep a box that nobody reads, or let it expire after 2 minutes",
                              "event persistent alarms off", describe_switch, persistent);
  commands.add<SwitchOptions>(*event, "copy",
                              "Copy what is forwarded into a box to the sub servers, or not",
                              "event copy alarms off", describe_switch, copy);
}

}  // namespace portsvc::tools
