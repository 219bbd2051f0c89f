// Selection: an owner watches its ports, a client its replies.

#include <optional>

#include "core/port_factory_i.h"
#include "platform/wait.h"

using namespace portsvc;

namespace {

std::optional<unsigned int> go_on() { return std::nullopt; }

}  // namespace

unsigned int Port_Factory_i::wait_for_signal(Owner_Set& set, unsigned int& ready,
                                             unsigned int timeout) {
  const unsigned int waited = wait(
      timeout, result::timed_out, &set,
      [&]() -> std::optional<unsigned int> {
        if (set.empty()) return result::nothing_selected;
        for (auto entry = set.begin(); entry != set.end();) {
          switch ((*entry)->owner_signal()) {
            case result::ok:
              ready = (*entry)->port_id();
              return result::ok;
            case result::not_connected:
              entry = set.erase(entry);
              break;
            default:
              ++entry;
          }
        }
        return std::nullopt;
      },
      go_on);
  if (waited == result::timed_out) ready = 0;
  if (waited != result::nothing_selected) signal_off(set);
  return waited;
}

unsigned int Port_Factory_i::wait_for_replay_signal(Client_Set& set, unsigned int& ready,
                                                    unsigned int timeout) {
  const unsigned int waited = wait(
      timeout, result::timed_out, &set,
      [&]() -> std::optional<unsigned int> {
        if (set.empty()) return result::nothing_selected;
        for (auto entry = set.begin(); entry != set.end();) {
          switch (entry->second->reply_signal(entry->first)) {
            case result::ok:
              ready = entry->first;
              return result::ok;
            case result::not_connected: {
              const auto index = entry - set.begin();
              set.erase(entry);
              entry = set.begin() + index;
              break;
            }
            default:
              ++entry;
          }
        }
        return std::nullopt;
      },
      go_on);
  if (waited == result::timed_out) ready = 0;
  if (waited != result::nothing_selected) signal_off_replay(set);
  return waited;
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
