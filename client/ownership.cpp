#include "client/ownership.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "middleware/owner_note.h"

namespace portsvc::client::detail {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds time_between_looks(200);

}  // namespace

Result read_hosts(Link& link, std::map<std::string, std::string>& hosts) {
  return link.call([&](Port_Factory_ptr server) -> unsigned int {
    Varo::DT_PORT_SVC::ConnectionSeq_var list;
    const unsigned int code = server->current_connection(list.out());
    hosts.clear();
    for (CORBA::ULong i = 0; i < list->length(); ++i) {
      hosts.emplace(list[i].port_name.in(), list[i].host.in());
    }
    return code;
  });
}

OwnerWord word_of(const OwnerNote& note) {
  return {note.program, note.host, note.process, note.has_ended()};
}

Ownership::Ownership(std::shared_ptr<Link> link, What what, std::string name, OwnerOptions options,
                     std::vector<unsigned int> codes)
    : link_(std::move(link)),
      what_(what),
      name_(std::move(name)),
      options_(options),
      codes_(std::move(codes)),
      note_(OwnerNote::own().text()) {
  unsigned int id = 0;
  std::uint64_t life = 0;
  const Result held = hold(id, life);
  if (!held && what_ == What::subscription) release();
  link_->check("own " + name_, held);
}

Ownership::~Ownership() { release(); }

unsigned int Ownership::id() const {
  const std::lock_guard<std::mutex> guard(lock_);
  return id_;
}

void Ownership::cancel() {
  ended_ = true;
  link_->wake();
  std::unique_lock<std::mutex> lock(lock_);
  if (taking_ == 0) return;
  const unsigned int id = id_;
  const std::uint64_t life = life_;
  lock.unlock();
  // The server asks after each pause whether the owner still wants to wait. This one has no access
  // mode any more, and still has the port.
  constexpr unsigned int access_none = 0;
  (void)link_->call_in(life, std::chrono::seconds(0), [&](Port_Factory_ptr server) -> unsigned int {
    const unsigned int code = server->disconnect_port(id);
    if (code != result::ok) return code;
    CORBA::ULong again = 0;
    CORBA::ULong other = 0;
    return server->connect_port(name_.c_str(), again, CONNECT_OWNER, access_none, other);
  });
  lock.lock();
  changed_.wait_for(lock, link_->options().call_timeout, [this] { return taking_ == 0; });
}

Result Ownership::hold(unsigned int& id, std::uint64_t& life) {
  life = link_->life();
  std::unique_lock<std::mutex> lock(lock_);
  changed_.wait(lock, [this] { return !connecting_; });
  if (life != 0 && life_ == life) {
    id = id_;
    return Result();
  }
  connecting_ = true;
  const bool again = id_ != 0;
  id = id_;
  lock.unlock();
  const auto done = [&](Result result) {
    lock.lock();
    connecting_ = false;
    if (result) {
      // Calls made meanwhile may have found another life: then this one holds nothing.
      life_ = life;
      id_ = id;
    }
    lock.unlock();
    changed_.notify_all();
    return result;
  };
  // The first call of all finds out which life it is.
  const Result reached = link_->call([](Port_Factory_ptr server) {
    CORBA::ULong unused = 0;
    return static_cast<unsigned int>(server->gen_evc_code(unused));
  });
  if (!reached) return done(reached);
  life = link_->life();
  try {
    return done(connect(again, id));
  } catch (...) {
    (void)done(Result(failure::broker));
    throw;
  }
}

Result Ownership::make_box() {
  const unsigned int limit = options_.create;
  const Result made = link_->call([&](Port_Factory_ptr server) {
    return static_cast<unsigned int>(server->create_port(name_.c_str(), PORT_EVENTBOX, limit));
  });
  if (!made && made != result::already_exists) return made;
  const Result mortal = link_->call([&](Port_Factory_ptr server) {
    return static_cast<unsigned int>(server->setPersistent(name_.c_str(), 0));
  });
  if (!mortal) return mortal;
  for (const unsigned int code : codes_) {
    const Result subscribed = link_->call([&](Port_Factory_ptr server) {
      return static_cast<unsigned int>(server->add_event(name_.c_str(), code));
    });
    if (!subscribed && subscribed != result::already_subscribed) return subscribed;
  }
  return Result();
}

Result Ownership::connect(bool again, unsigned int& id) {
  if (what_ == What::subscription) {
    // A server that has been out of reach, and is the same, still has the box.
    PortInfo info;
    const Result known = link_->call([&](Port_Factory_ptr server) {
      Varo::DT_PORT_SVC::PORT_INFO found{};
      const unsigned int code = server->get_port_info(name_.c_str(), found);
      info.port_id = found.port_id;
      return code;
    });
    if (!again || known == result::no_such_port || info.port_id != id) {
      if (const Result made = make_box(); !made) return made;
      if (again) ++gaps_;
    }
  } else if (options_.create != 0) {
    const unsigned int kind = what_ == What::port ? PORT_MASTER : PORT_EVENTBOX;
    const Result made = link_->call([&](Port_Factory_ptr server) {
      return static_cast<unsigned int>(server->create_port(name_.c_str(), kind, options_.create));
    });
    if (!made && made != result::already_exists) return made;
  }

  Varo::DT_PORT_SVC::PORT_INFO info{};
  const Result known = link_->call([&](Port_Factory_ptr server) {
    return static_cast<unsigned int>(server->get_port_info(name_.c_str(), info));
  });
  if (known == result::no_such_port) return Result(result::unknown_name);
  if (!known) return known;
  if ((info.kind == PORT_EVENTBOX) != (what_ != What::port)) return Result(result::access_refused);

  const unsigned int access =
      what_ == What::port ? static_cast<unsigned int>(options_.access) : ACCESS_WAIT;
  const unsigned int former_id = id;
  const auto since = steady_clock::now();
  for (;;) {
    CORBA::ULong handle = 0;
    CORBA::ULong owner = 0;
    const Result connected = link_->call([&](Port_Factory_ptr server) {
      return static_cast<unsigned int>(
          server->connect_port(name_.c_str(), handle, CONNECT_OWNER, access, owner));
    });
    if (connected) {
      id = handle;
      break;
    }
    if (connected != result::owner_exists) return connected;
    bool wait = false;
    const Result taken_over = take_over(again && owner == former_id, since, wait);
    if (taken_over && wait) {
      if (!link_->pause(time_between_looks, [this] { return ended(); }))
        return Result(failure::cancelled);
      continue;
    }
    if (!taken_over) return taken_over;
  }
  // A text that somebody else has stored for the port stays.
  bool any = false;
  text_at_port(any);
  if (any) return Result();
  (void)link_->call([&](Port_Factory_ptr server) {
    return static_cast<unsigned int>(server->set_connected_host(name_.c_str(), note_.c_str()));
  });
  return Result();
}

std::string Ownership::text_at_port(bool& any) {
  std::map<std::string, std::string> hosts;
  const Result listed = read_hosts(*link_, hosts);
  std::string text = hosts[name_];
  any = !listed || !text.empty();
  return text;
}

// Disconnects the owner that there is, if that may be done. `mine`: the port is the one that this
// object has owned, so without another's word on it the owner is still this one.
Result Ownership::take_over(bool mine, steady_clock::time_point since, bool& wait) {
  bool any = false;
  const std::string text = text_at_port(any);
  const auto note = OwnerNote::read(text);
  const bool itself = mine && (text.empty() || text == note_);
  const bool ended =
      note && note->has_ended() && (options_.take_over || options_.take_over_after.has_value());
  const auto waited = std::chrono::duration_cast<std::chrono::seconds>(steady_clock::now() - since);
  const bool late = options_.take_over_after && waited >= *options_.take_over_after;
  if (!itself && !ended && !late) {
    wait = options_.take_over_after.has_value();
    return wait ? Result() : Result(result::owner_exists);
  }
  const Result released = link_->call([&](Port_Factory_ptr server) {
    Varo::DT_PORT_SVC::PORT_INFO info{};
    const unsigned int code = server->get_port_info(name_.c_str(), info);
    return code == result::ok ? static_cast<unsigned int>(server->disconnect_port(info.port_id))
                              : code;
  });
  if (!released && released != result::not_connected) return released;
  if (!itself && options_.on_take_over) {
    options_.on_take_over(fmt::format(
        "{}{}", note ? word_of(*note).text() : "an owner that left no word",
        ended ? ", which has ended" : fmt::format(", after waiting {} s", waited.count())));
  }
  return Result();
}

void Ownership::lose(std::uint64_t life) {
  const std::lock_guard<std::mutex> guard(lock_);
  if (life_ == life) life_ = 0;
}

class Ownership::Taking {
 public:
  explicit Taking(Ownership& owned) : owned_(owned) {
    const std::lock_guard<std::mutex> guard(owned_.lock_);
    ++owned_.taking_;
  }
  ~Taking() {
    const std::lock_guard<std::mutex> guard(owned_.lock_);
    --owned_.taking_;
    owned_.changed_.notify_all();
  }
  Taking(const Taking&) = delete;
  Taking& operator=(const Taking&) = delete;

 private:
  Ownership& owned_;
};

Result Ownership::attempt(std::chrono::seconds longest, const Take& take, std::uint64_t& life) {
  for (bool again = false;;) {
    unsigned int id = 0;
    Result result = hold(id, life);
    if (!result) return result;
    const Taking taking(*this);
    // A cancellation that comes from here on sees the call; one that came before is seen here.
    if (ended_ || link_->cancelled()) return Result(failure::cancelled);
    result = link_->call_in(life, longest, [&](Port_Factory_ptr server) {
      return take(server, id, static_cast<unsigned int>(longest.count()));
    });
    if (result == result::unknown_handle) lose(life);  // the port has gone, its server has not
    if (!link_->options().reconnect) return result;
    if (result == stale) continue;
    if (result == result::unknown_handle && !std::exchange(again, true)) continue;
    return result;
  }
}

Result Ownership::still_owned(std::uint64_t life) {
  Varo::DT_PORT_SVC::PORT_INFO info{};
  const auto ask = [&](Port_Factory_ptr server) -> unsigned int {
    return server->get_port_info(name_.c_str(), info);
  };
  const Result known = link_->call_in(life, std::chrono::seconds(0), ask);
  const bool released = known && info.kind != PORT_SLAVE && info.owner_connected == 0;
  return Result(released ? result::not_connected : result::ok);
}

Result Ownership::wait(Timeout timeout, const Take& take, std::uint64_t& life) {
  Wait wait(
      *link_, [this] { return ended(); }, timeout);
  const bool looks_only =
      timeout.seconds().count() == 0 && (what_ != What::port || options_.access == Access::select);
  for (;;) {
    if (wait.cancelled()) return Result(failure::cancelled);
    Result result = attempt(std::chrono::seconds(looks_only ? 0 : 1), take, life);
    if (result == result::timed_out && !looks_only) {
      wait.got_through();
      const Result owned = still_owned(life);
      if (owned && !wait.over()) continue;
      return owned ? result : owned;
    }
    if (result) wait.got_through();
    if (result || looks_only || !wait.goes_on_after(result, true)) {
      return !result && wait.cancelled() ? Result(failure::cancelled) : for_callers(result);
    }
  }
}

namespace {

Ownership::Take taking_events(std::vector<Payload>& events, unsigned int most) {
  return [&events, most](Port_Factory_ptr server, unsigned int id,
                         unsigned int seconds) -> unsigned int {
    Varo::DATA_BUFFER_SEQ_var list;
    const unsigned int code = server->packet_receive_n(id, list.out(), most, seconds);
    events.reserve(list->length());
    for (CORBA::ULong i = 0; i < list->length(); ++i) events.push_back(payload_of(list[i]));
    // Only a packet port, which somebody has made in the box's place, answers nothing.
    return code == result::ok && events.empty() ? result::access_refused : code;
  };
}

}  // namespace

Result Ownership::take(std::vector<Payload>& events, unsigned int most, Timeout timeout) {
  events.clear();
  std::uint64_t life = 0;
  return wait(timeout, taking_events(events, most), life);
}

Result Ownership::take_now(std::vector<Payload>& events, unsigned int most, std::uint64_t& life) {
  events.clear();
  return attempt(std::chrono::seconds(0), taking_events(events, most), life);
}

void Ownership::release() {
  unsigned int id = 0;
  std::uint64_t life = 0;
  {
    const std::lock_guard<std::mutex> guard(lock_);
    id = id_;
    life = life_;
  }
  if (what_ == What::subscription) {
    (void)link_->say_farewell({}, [&](Port_Factory_ptr server) {
      return static_cast<unsigned int>(server->delete_port(name_.c_str()));
    });
    return;
  }
  if (id == 0) return;
  const auto disconnect = [&](Port_Factory_ptr server) {
    return static_cast<unsigned int>(server->disconnect_port(id));
  };
  if (life != 0 && link_->say_farewell(life, disconnect) != stale) return;
  // Perhaps only the connection was lost, and the port is still owned.
  (void)link_->say_farewell({}, [&](Port_Factory_ptr server) -> unsigned int {
    Varo::DT_PORT_SVC::PORT_INFO info{};
    const unsigned int code = server->get_port_info(name_.c_str(), info);
    if (code != result::ok || info.port_id != id || info.owner_connected == 0) return code;
    Varo::DT_PORT_SVC::ConnectionSeq_var list;
    if (server->current_connection(list.out()) != result::ok) return result::ok;
    for (CORBA::ULong i = 0; i < list->length(); ++i) {
      if (name_ == list[i].port_name.in() && note_ != list[i].host.in()) return result::ok;
    }
    return disconnect(server);
  });
}

}  // namespace portsvc::client::detail
