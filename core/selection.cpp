// Selection: an owner watches its ports, a client its replies.

#include <optional>

#include "core/port_factory_i.h"
#include "platform/wait.h"

using namespace portsvc;

namespace {

// Waits until an entry of the set is ready and answers its name. `signal_of(entry)` tells: ok, or
// not_connected for one that is no longer there and leaves the set. Whatever ends the wait but an
// empty set ends the selection.
template <class Set, class Signal, class Name, class Off>
unsigned int watch(Set& set, unsigned int& ready, unsigned int timeout, Signal&& signal_of,
                   Name&& name_of, Off&& off) {
  const unsigned int waited = wait(
      timeout, result::timed_out, &set,
      [&]() -> std::optional<unsigned int> {
        if (set.empty()) return result::nothing_selected;
        for (std::ptrdiff_t i = 0; i < static_cast<std::ptrdiff_t>(set.size());) {
          const auto entry = set.begin() + i;
          switch (signal_of(*entry)) {
            case result::ok:
              ready = name_of(*entry);
              return result::ok;
            case result::not_connected:
              set.erase(entry);
              break;
            default:
              ++i;
          }
        }
        return std::nullopt;
      },
      []() -> std::optional<unsigned int> { return std::nullopt; });
  if (waited == result::timed_out) ready = 0;
  if (waited != result::nothing_selected) off();
  return waited;
}

}  // namespace

unsigned int Port_Factory_i::wait_for_signal(Owner_Set& set, unsigned int& ready,
                                             unsigned int timeout) {
  return watch(
      set, ready, timeout, [](const auto& port) { return port->owner_signal(); },
      [](const auto& port) { return port->port_id(); }, [&] { signal_off(set); });
}

unsigned int Port_Factory_i::wait_for_replay_signal(Client_Set& set, unsigned int& ready,
                                                    unsigned int timeout) {
  return watch(
      set, ready, timeout,
      [](const auto& client) { return client.second->reply_signal(client.first); },
      [](const auto& client) { return client.first; }, [&] { signal_off_replay(set); });
}

void Port_Factory_i::signal_off(Owner_Set& set) {
  for (const auto& port : set) port->select(false);
}

// The marks that a selection sets are read by nothing.
void Port_Factory_i::signal_off_replay(Client_Set&) {}

CORBA::ULong Port_Factory_i::select_event_port(const Varo::PORT_HANDLE_SET& handles,
                                               CORBA::ULong_out ready, CORBA::ULong timeout) {
  Owner_Set set;
  for (CORBA::ULong i = 0; i < handles.length(); ++i) {
    auto port = get_port(static_cast<unsigned int>(handles[i]));
    if (!port) return result::unknown_handle;
    // The ports counted so far keep their count on an early end.
    if (const unsigned int refused = port->select(true)) return refused;
    set.push_back(std::move(port));
  }
  return wait_for_signal(set, ready, timeout);
}

CORBA::ULong Port_Factory_i::select_replay_port(const Varo::PORT_HANDLE_SET& handles,
                                                CORBA::ULong_out ready, CORBA::ULong timeout) {
  Client_Set set;
  for (CORBA::ULong i = 0; i < handles.length(); ++i) {
    const unsigned int handle = handles[i];
    auto port = find_port(handle);
    if (!port) return result::unknown_handle;
    if (const unsigned int refused = port->select_replay(handle, true)) return refused;
    set.insert(std::make_pair(handle, std::move(port)));  // the first entry of a handle stays
  }
  return wait_for_replay_signal(set, ready, timeout);
}
