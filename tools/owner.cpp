#include "tools/owner.h"

#include <fmt/core.h>
#include <poll.h>

#include <algorithm>

#include "idl/port_codes.h"
#include "tools/errors.h"

namespace portsvc::tools {

using std::chrono::steady_clock;
using Varo::DT_PORT_SVC::Port_Factory;
using Varo::DT_PORT_SVC::Port_Factory_ptr;

namespace {

constexpr const char* note_word = "portctl";

OwnerNote own_note() {
  OwnerNote note = OwnerNote::own();
  note.program = note_word;  // whatever the file is called
  return note;
}

// Access mode of nobody who waits or selects.
constexpr unsigned int access_none = 0;

}  // namespace

std::string owner_text(const std::optional<OwnerNote>& note) {
  if (!note) return "an owner that left no word";
  return fmt::format("portctl, process {} of {}", note->process, note->host);
}

std::optional<OwnerNote> note_of_owner(Port_Factory_ptr server, const std::string& port) {
  Varo::DT_PORT_SVC::ConnectionSeq_var list;
  if (server->current_connection(list.out()) != result::ok) return {};
  for (CORBA::ULong i = 0; i < list->length(); ++i) {
    if (port != list[i].port_name.in()) continue;
    auto note = OwnerNote::read(list[i].host.in());
    if (note && note->program != note_word) note.reset();
    return note;
  }
  return {};
}

void describe_owner(CLI::App& command, OwnerOptions& options) {
  command.add_flag("--take-over", options.take_over,
                   "Take the port from an owner that was a portctl of this host and has ended");
  command
      .add_option("--take-over-after", options.take_over_after,
                  "Take it from any other owner too, after so many seconds")
      ->option_text("SECONDS");
}

void pause_for(std::chrono::milliseconds time) {
  pollfd interrupt{interrupt_fd(), POLLIN, 0};
  (void)::poll(&interrupt, 1, static_cast<int>(time.count()));
  throw_if_interrupted();
}

Owner::Owner(Session& session, const std::string& port, const OwnerOptions& options,
             const Sink* sink)
    : server_(Port_Factory::_duplicate(session.server())), port_(port) {
  const auto start = steady_clock::now();
  const OwnerNote own = own_note();
  const bool take_over = options.take_over || options.take_over_after;
  while (!connection_) {
    try {
      connection_ = std::make_unique<Connection>(server_, port, CONNECT_OWNER, ACCESS_WAIT);
      break;
    } catch (const ResultError& error) {
      if (error.code() != result::owner_exists) throw;
    }
    const auto note = note_of_owner(server_, port);
    // After a lost connection the former owner may be this process itself.
    const bool itself = note && note->text() == own.text();
    const bool ended = note && note->has_ended();
    const auto waited =
        std::chrono::duration_cast<std::chrono::seconds>(steady_clock::now() - start);
    const bool late = options.take_over_after && waited.count() >= *options.take_over_after;
    if (itself || (take_over && (ended || late))) {
      Varo::DT_PORT_SVC::PORT_INFO info{};
      check("look up " + port, server_->get_port_info(port.c_str(), info));
      const unsigned int code = server_->disconnect_port(info.port_id);
      if (code != result::not_connected) check("take over " + port, code);
      if (!itself) {
        warn(fmt::format(
            "took {} over from {}{}", port, owner_text(note),
            ended ? ", which has ended" : fmt::format(", after waiting {} s", waited.count())));
      }
    } else if (options.take_over_after) {
      pause_for(std::chrono::milliseconds(200));
    } else {
      throw ResultError(fmt::format("own {}, which {} owns ({})", port, owner_text(note),
                                    take_over ? "--take-over-after S takes it all the same"
                                    : ended   ? "it has ended: --take-over"
                                              : "see: --take-over, portctl release"),
                        result::owner_exists);
    }
  }
  // A text that somebody else has stored for the port stays.
  Varo::DT_PORT_SVC::ConnectionSeq_var texts;
  bool has_text = server_->current_connection(texts.out()) != result::ok;
  for (CORBA::ULong i = 0; !has_text && i < texts->length(); ++i) {
    has_text = port == texts[i].port_name.in();
  }
  if (!has_text) (void)server_->set_connected_host(port.c_str(), own.text().c_str());
  if (sink) watch_.emplace(*sink, [this] { end_take(); });
}

void Owner::throw_if_released() const {
  Varo::DT_PORT_SVC::PORT_INFO info{};
  check("look up " + port_, server_->get_port_info(port_.c_str(), info));
  if (info.kind == PORT_SLAVE || info.owner_connected != 0) return;
  throw ResultError("own " + port_ + ", which somebody has released", result::not_connected);
}

void Owner::end_take() {
  reader_gone_.store(true);
  try {
    const orb::CallTimeout limit;
    if (server_->disconnect_port(handle()) != result::ok) return;
    CORBA::ULong again = 0;
    CORBA::ULong other = 0;
    (void)server_->connect_port(port_.c_str(), again, CONNECT_OWNER, access_none, other);
  } catch (const CORBA::Exception&) {
    // A server that has gone takes nothing.
  }
}

void describe_reconnect(CLI::App& command, Reconnect& reconnect) {
  reconnect.on = true;
  command.add_flag_function(
      "--reconnect,!--no-reconnect",
      [&reconnect](std::int64_t on) {
        reconnect = {on > 0, on > 0};
      },
      "Go on when the server is lost and comes back (the default); said in so many words, also "
      "wait for it at first");
}

void keep_connected(Session& session, const Reconnect& reconnect,
                    const std::function<void(const std::function<void()>& connected)>& serve) {
  constexpr std::chrono::milliseconds shortest{250};
  constexpr std::chrono::milliseconds longest{30000};
  auto pause = shortest;
  bool was_connected = false;
  bool lost = false;
  const auto connected = [&] {
    if (lost) warn("connected again");
    pause = shortest;
    lost = false;
    was_connected = true;
  };
  for (;;) {
    std::string why;
    try {
      return serve(connected);
    } catch (const ResultError& error) {
      // After a restart the port has another id, or does not exist yet.
      const bool passes = error.code() == result::unknown_handle ||
                          error.code() == result::unknown_name || error.code() == result::no_peer ||
                          error.code() == result::peer_receive || error.code() == result::failed;
      if (!passes || !reconnect.on || !(was_connected || reconnect.also_at_first)) throw;
      why = error.what();
    } catch (const Unreachable& error) {
      if (!reconnect.on || !(was_connected || reconnect.also_at_first)) throw;
      why = error.what();
    } catch (const CORBA::Exception& exception) {
      if (!reconnect.on || !(was_connected || reconnect.also_at_first)) throw;
      why = session.explain(exception);
    }
    if (!lost) warn(why + "; trying again");
    lost = true;
    session.forget_server();
    pause_for(pause);
    pause = std::min(pause * 2, longest);
  }
}

}  // namespace portsvc::tools
