// What programs use: the operations by name, and the objects that own, subscribe and ask.
#include "portsvc/client.h"

#include <fmt/format.h>

#include <algorithm>
#include <random>

#include "client/exchange.h"
#include "client/ownership.h"

namespace portsvc::client {

using detail::Exchange;
using detail::Ownership;
using detail::Port_Factory_ptr;
using detail::slice;
using detail::Wait;

namespace {

constexpr std::chrono::milliseconds time_between_looks(50);

std::string new_box_name() {
  std::random_device random;
  return fmt::format("subscription-{:08x}{:08x}", random(), random());
}

Result take_one(Ownership& box, Payload& event, Timeout timeout) {
  std::vector<Payload> events;
  const Result taken = box.take(events, 1, timeout);
  if (taken) event = std::move(events.at(0));
  return taken;
}

template <class State>
bool any_ended(const std::vector<State*>& states) {
  return std::any_of(states.begin(), states.end(), [](const State* each) { return each->ended(); });
}

// Selecting is the same for owners and clients, but for the operation and what is held.
template <class Entry, class State, class Operation>
Result select_one(const std::vector<Entry*>& entries, const std::vector<State*>& states,
                  Entry*& ready, Timeout timeout, Operation operation) {
  ready = nullptr;
  if (entries.empty()) return Result(result::nothing_selected);
  detail::Link& link = states.front()->link();
  for (State* state : states) {
    if (&state->link() != &link || state->access() != Access::select) {
      return Result(result::access_refused);
    }
  }
  Wait wait(
      link, [&] { return any_ended(states); }, timeout);
  for (;;) {
    if (wait.cancelled()) return Result(failure::cancelled);
    Varo::PORT_HANDLE_SET handles;
    handles.length(static_cast<CORBA::ULong>(states.size()));
    std::uint64_t life = 0;
    Result result = operation.hold(states, handles, life);
    CORBA::ULong found = 0;
    if (result) {
      result = link.call_in(life, slice, [&](Port_Factory_ptr server) {
        return operation.select(server, handles, found);
      });
    }
    if (result) {
      wait.got_through();
      for (CORBA::ULong i = 0; i < handles.length(); ++i) {
        if (handles[i] == found && !ready) ready = entries[i];
      }
      return ready ? result : Result(failure::broker);
    }
    if (result == result::unknown_handle) operation.lose(states, life);
    if (result == result::timed_out) {
      if (wait.over()) return result;
      wait.got_through();
    } else if (!(result == detail::stale && link.options().reconnect) &&
               !wait.goes_on_after(result, true)) {
      return wait.cancelled() ? Result(failure::cancelled) : detail::for_callers(result);
    }
  }
}

}  // namespace

const std::shared_ptr<detail::Link>& link_of(const Connection& connection) {
  return connection.link_;
}

// --- Connection

Connection::Connection(const std::string& server, const Options& options)
    : link_(std::make_shared<detail::Link>(server, options)) {}
Connection::~Connection() = default;
Connection::Connection(Connection&&) noexcept = default;
Connection& Connection::operator=(Connection&&) noexcept = default;

void Connection::cancel() { link_->cancel(); }

std::string Connection::explain(Result failed) const { return link_->explain(failed); }

Result Connection::ping() {
  return link_->call([](Port_Factory_ptr server) {
    server->heart_bit();
    return result::ok;
  });
}

Result Connection::create(const std::string& name, unsigned int kind, unsigned int limit) {
  return link_->call([&](Port_Factory_ptr server) -> unsigned int {
    return server->create_port(name.c_str(), kind, limit);
  });
}

Result Connection::remove(const std::string& name) {
  return link_->call(
      [&](Port_Factory_ptr server) -> unsigned int { return server->delete_port(name.c_str()); });
}

Result Connection::exists(const std::string& name, bool& found) {
  const Result known = link_->call([&](Port_Factory_ptr server) {
    return static_cast<unsigned int>(server->exist(name.c_str()));
  });
  found = known.ok();
  return known == result::unknown_name ? Result() : known;
}

Result Connection::info(const std::string& name, PortInfo& info) {
  return link_->call([&](Port_Factory_ptr server) -> unsigned int {
    Varo::DT_PORT_SVC::PORT_INFO known{};
    const unsigned int code = server->get_port_info(name.c_str(), known);
    info = {known.kind, known.port_id, known.owner_connected != 0, known.owner_access, known.limit};
    return code;
  });
}

Result Connection::list(std::vector<std::string>& ports, std::vector<std::string>& boxes) {
  return link_->call([&](Port_Factory_ptr server) -> unsigned int {
    Varo::STRING_LIST_var port_names;
    Varo::STRING_LIST_var box_names;
    const unsigned int code = server->patch_object_name(port_names.out(), box_names.out());
    const auto copy = [](const Varo::STRING_LIST& names, std::vector<std::string>& to) {
      to.clear();
      for (CORBA::ULong i = 0; i < names.length(); ++i) to.emplace_back(names[i].in());
    };
    copy(port_names.in(), ports);
    copy(box_names.in(), boxes);
    return code;
  });
}

Result Connection::release(const std::string& name) {
  PortInfo known;
  const Result found = info(name, known);
  if (!found) return found;
  return link_->call([&](Port_Factory_ptr server) -> unsigned int {
    return server->disconnect_port(known.port_id);
  });
}

Result Connection::hosts(std::map<std::string, std::string>& hosts) {
  return detail::read_hosts(*link_, hosts);
}

Result Connection::set_host(const std::string& name, const std::string& host) {
  return link_->call([&](Port_Factory_ptr server) -> unsigned int {
    return server->set_connected_host(name.c_str(), host.c_str());
  });
}

Result Connection::owner_word(const std::string& name, std::optional<OwnerWord>& word) {
  word.reset();
  std::map<std::string, std::string> texts;
  const Result read = hosts(texts);
  const auto text = texts.find(name);
  if (text != texts.end()) {
    if (const auto note = OwnerNote::read(text->second)) word = detail::word_of(*note);
  }
  return read;
}

Result Connection::put(const std::string& box, Bytes event) {
  if (!detail::fits_wire(event)) return Result(failure::too_large);
  Varo::DATA_BUFFER data;
  detail::show(data, event);
  return link_->call(
      [&](Port_Factory_ptr server) -> unsigned int {
        return server->send_event(box.c_str(), data);
      },
      event.size());
}

Result Connection::declare(unsigned int code, Bytes event) {
  if (!detail::fits_wire(event)) return Result(failure::too_large);
  Varo::DATA_BUFFER data;
  detail::show(data, event);
  return link_->call(
      [&](Port_Factory_ptr server) -> unsigned int { return server->declare_event(code, data, 0); },
      event.size());
}

Result Connection::declare(unsigned int code, const std::vector<Bytes>& events) {
  Varo::DATA_BUFFER_SEQ list;
  list.length(static_cast<CORBA::ULong>(events.size()));
  std::size_t bytes = 0;
  for (CORBA::ULong i = 0; i < list.length(); ++i) {
    if (!detail::fits_wire(events[i])) return Result(failure::too_large);
    detail::show(list[i], events[i]);
    bytes += events[i].size();
  }
  return link_->call(
      [&](Port_Factory_ptr server) -> unsigned int {
        return server->declare_event_n(code, list, 0);
      },
      bytes);
}

Result Connection::subscribe(const std::string& box, unsigned int code) {
  return link_->call([&](Port_Factory_ptr server) -> unsigned int {
    return server->add_event(box.c_str(), code);
  });
}

Result Connection::count(const std::string& box, unsigned int& events) {
  return link_->call([&](Port_Factory_ptr server) -> unsigned int {
    CORBA::ULong held = 0;
    const unsigned int code = server->event_count(box.c_str(), held);
    events = held;
    return code;
  });
}

Result Connection::clear(const std::string& box) {
  return link_->call(
      [&](Port_Factory_ptr server) -> unsigned int { return server->clear_event(box.c_str()); });
}

Result Connection::set_persistent(const std::string& box, bool persistent) {
  return link_->call([&](Port_Factory_ptr server) -> unsigned int {
    return server->setPersistent(box.c_str(), persistent ? 1 : 0);
  });
}

Result Connection::save_snapshot() {
  return link_->call(
      [](Port_Factory_ptr server) -> unsigned int { return server->make_snapshot(); });
}

Result Connection::download_snapshot(
    std::string& bytes,
    const std::function<bool(std::uint64_t here, std::uint64_t all)>& progress) {
  bytes.clear();
  // The handle's reference may name the server in another way than this connection, so calls to it
  // find connections of their own.
  const auto limited = [this](const auto& call) {
    try {
      const orb::CallTimeout limit(link_->options().call_timeout);
      return call();
    } catch (const CORBA::Exception& exception) {
      return detail::result_of(exception);
    }
  };
  Varo::FileHandle_var file;
  const Result opened = link_->call([&](Port_Factory_ptr server) -> unsigned int {
    file = server->openSnapShot();
    return CORBA::is_nil(file.in()) ? result::snapshot_not_writable : result::ok;
  });
  if (!opened) return opened;
  CORBA::Long size = 0;
  Result read =
      limited([&] { return Result(file->size(size) == 0 ? result::ok : result::failed); });
  while (read && bytes.size() < static_cast<std::size_t>(size)) {
    if (link_->cancelled() ||
        (progress && !progress(bytes.size(), static_cast<std::uint64_t>(size)))) {
      read = Result(failure::cancelled);
      break;
    }
    read = limited([&] {
      CORBA::Long length = 256 * 1024;
      Varo::DATA_BUFFER_var data;
      const auto offset = static_cast<CORBA::Long>(bytes.size());
      if (file->read(offset, length, data.out()) != 0 || length <= 0) return Result(result::failed);
      bytes.append(reinterpret_cast<const char*>(data->get_buffer()), data->length());
      return Result();
    });
  }
  // A handle that stays open is closed by the server once nobody uses it.
  (void)limited([&] {
    file->close();
    return Result();
  });
  return read;
}

// --- Client

Client::Client(Connection& connection, const std::string& port, Access access)
    : impl_(std::make_unique<Exchange>(connection.link_, port, access)) {}
Client::~Client() = default;
Client::Client(Client&&) noexcept = default;
Client& Client::operator=(Client&&) noexcept = default;

const std::string& Client::port() const { return impl_->port(); }
void Client::cancel() { impl_->cancel(); }

Result Client::send(Bytes packet, Timeout timeout) {
  Wait wait(
      impl_->link(), [this] { return impl_->ended(); }, timeout);
  return impl_->send(packet, wait);
}

Result Client::wait_reply(Payload& reply, Timeout timeout) {
  Wait wait(
      impl_->link(), [this] { return impl_->ended(); }, timeout);
  return impl_->wait_reply(reply, wait);
}

Result Client::ask(Bytes packet, Payload& reply, Timeout timeout) {
  impl_->give_up_replies();
  Wait wait(
      impl_->link(), [this] { return impl_->ended(); }, timeout);
  const Result sent = impl_->send(packet, wait);
  return sent ? impl_->wait_reply(reply, wait) : sent;
}

// --- Owner

Owner::Owner(Connection& connection, const std::string& port, const OwnerOptions& options)
    : impl_(std::make_unique<Ownership>(connection.link_, Ownership::What::port, port, options)) {}
Owner::~Owner() = default;
Owner::Owner(Owner&&) noexcept = default;
Owner& Owner::operator=(Owner&&) noexcept = default;

const std::string& Owner::port() const { return impl_->name(); }
unsigned int Owner::port_id() const { return impl_->id(); }
void Owner::cancel() { impl_->cancel(); }

Result Owner::receive(Packet& packet, Timeout timeout) {
  const bool selects = impl_->access() == Access::select;
  return impl_->wait(
      timeout,
      [&](Port_Factory_ptr server, unsigned int id, unsigned int seconds) -> unsigned int {
        if (selects && seconds != 0) {
          Varo::PORT_HANDLE_SET handles;
          handles.length(1);
          handles[0] = id;
          CORBA::ULong ready = 0;
          const unsigned int code = server->select_event_port(handles, ready, seconds);
          if (code != result::ok) return code;
        }
        CORBA::ULong source = 0;
        Varo::DATA_BUFFER_var data;
        const unsigned int code = server->packet_receive(id, source, data.out(), seconds);
        if (code == result::nothing_arrived) return result::timed_out;
        if (code != result::ok) return code;
        packet.from.handle = source;
        packet.data = detail::payload_of(data.in());
        return code;
      },
      packet.from.life);
}

Result Owner::reply(const Sender& to, Bytes data) {
  if (!detail::fits_wire(data)) return Result(failure::too_large);
  Varo::DATA_BUFFER buffer;
  detail::show(buffer, data);
  const Result replied = impl_->link().call_in(
      to.life, std::chrono::seconds(0),
      [&](Port_Factory_ptr server) -> unsigned int {
        return server->packet_replay(to.handle, buffer, 0);
      },
      data.size());
  return detail::for_callers(replied);
}

// --- Box and Subscription

Box::Box(Connection& connection, const std::string& box, const OwnerOptions& options)
    : impl_(std::make_unique<Ownership>(connection.link_, Ownership::What::box, box, options)) {}
Box::~Box() = default;
Box::Box(Box&&) noexcept = default;
Box& Box::operator=(Box&&) noexcept = default;

const std::string& Box::name() const { return impl_->name(); }
void Box::cancel() { impl_->cancel(); }
Result Box::take(Payload& event, Timeout timeout) { return take_one(*impl_, event, timeout); }
Result Box::take(std::vector<Payload>& events, unsigned int most, Timeout timeout) {
  return impl_->take(events, most, timeout);
}

Subscription::Subscription(Connection& connection, const std::vector<unsigned int>& codes,
                           unsigned int limit) {
  OwnerOptions options;
  options.create = limit;
  impl_ = std::make_unique<Ownership>(connection.link_, Ownership::What::subscription,
                                      new_box_name(), options, codes);
}
Subscription::~Subscription() = default;
Subscription::Subscription(Subscription&&) noexcept = default;
Subscription& Subscription::operator=(Subscription&&) noexcept = default;

const std::string& Subscription::box() const { return impl_->name(); }
std::uint64_t Subscription::gaps() const { return impl_->gaps(); }
void Subscription::cancel() { impl_->cancel(); }
Result Subscription::take(Payload& event, Timeout timeout) {
  return take_one(*impl_, event, timeout);
}
Result Subscription::take(std::vector<Payload>& events, unsigned int most, Timeout timeout) {
  return impl_->take(events, most, timeout);
}

Result take(const std::vector<Box*>& boxes, Box*& from, std::vector<Payload>& events,
            unsigned int most, Timeout timeout) {
  from = nullptr;
  if (boxes.empty()) return Result(result::nothing_selected);
  std::vector<Ownership*> all;
  all.reserve(boxes.size());
  for (Box* const box : boxes) all.push_back(box->impl_.get());
  detail::Link& link = all.front()->link();
  const auto ended = [&] { return any_ended(all); };
  Wait wait(link, ended, timeout);
  constexpr int looks_between_questions = 20;
  for (int look = 1;; ++look) {
    Result result(result::timed_out);
    for (Box* const box : boxes) {
      Ownership& owned = *box->impl_;
      if (&owned.link() != &link) return Result(result::access_refused);
      std::uint64_t life = 0;
      result = owned.take_now(events, most, life);
      if (result) from = box;
      if (result == result::timed_out && look % looks_between_questions == 0) {
        if (const Result still = owned.still_owned(life); !still) result = still;
      }
      if (result != result::timed_out) break;
    }
    if (result || result == result::timed_out) wait.got_through();
    if (result || result == failure::cancelled) return result;
    if (result == result::timed_out) {
      if (wait.over()) return result;
      (void)link.pause(time_between_looks, ended);
    } else if (!wait.goes_on_after(result, true)) {
      return wait.cancelled() ? Result(failure::cancelled) : detail::for_callers(result);
    }
  }
}

// --- selections

Result select(const std::vector<Owner*>& owners, Owner*& ready, Timeout timeout) {
  struct Operation {
    static Result hold(const std::vector<Ownership*>& states, Varo::PORT_HANDLE_SET& handles,
                       std::uint64_t& life) {
      for (CORBA::ULong i = 0; i < handles.length(); ++i) {
        unsigned int id = 0;
        std::uint64_t in_life = 0;
        if (const Result held = states[i]->hold(id, in_life); !held) return held;
        handles[i] = id;
        // A life that begins meanwhile ends the earlier ones: the call finds out.
        life = i == 0 ? in_life : std::min(life, in_life);
      }
      return Result();
    }
    static void lose(const std::vector<Ownership*>& states, std::uint64_t life) {
      for (Ownership* state : states) state->lose(life);
    }
    static unsigned int select(Port_Factory_ptr server, const Varo::PORT_HANDLE_SET& handles,
                               CORBA::ULong& found) {
      return server->select_event_port(handles, found, static_cast<CORBA::ULong>(slice.count()));
    }
  };
  std::vector<Ownership*> states;
  states.reserve(owners.size());
  for (Owner* owner : owners) states.push_back(owner->impl_.get());
  return select_one(owners, states, ready, timeout, Operation());
}

Result select(const std::vector<Client*>& clients, Client*& ready, Timeout timeout) {
  struct Operation {
    static Result hold(const std::vector<Exchange*>& states, Varo::PORT_HANDLE_SET& handles,
                       std::uint64_t& life) {
      for (CORBA::ULong i = 0; i < handles.length(); ++i) {
        if (const Result held = states[i]->hold(); !held) return held;
        handles[i] = states[i]->handle();
        life = i == 0 ? states[i]->life() : std::min(life, states[i]->life());
      }
      return Result();
    }
    static void lose(const std::vector<Exchange*>&, std::uint64_t) {}
    static unsigned int select(Port_Factory_ptr server, const Varo::PORT_HANDLE_SET& handles,
                               CORBA::ULong& found) {
      return server->select_replay_port(handles, found, static_cast<CORBA::ULong>(slice.count()));
    }
  };
  std::vector<Exchange*> states;
  states.reserve(clients.size());
  for (Client* client : clients) states.push_back(client->impl_.get());
  return select_one(clients, states, ready, timeout, Operation());
}

}  // namespace portsvc::client
