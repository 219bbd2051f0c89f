// Selection: an owner watches its ports, a client its replies.

#include <algorithm>
#include <map>
#include <optional>
#include <unordered_set>

#include "core/out_values.h"
#include "core/port_factory_i.h"
#include "platform/wait.h"

using namespace portsvc;

namespace {

// A pass over more than so many holds up the tests of other waits for too long.
constexpr std::size_t short_test = 64;

// Waits until one of `watched`, which holds what is to be tested in order, is ready, and answers
// its place. `signal_of(entry)` tells: ok, or not_connected for one that is no longer there;
// `drop(entries)` is handed those of a pass.
template <class Watched, class Signal, class Drop>
unsigned int watch(std::vector<Watched>& watched, const std::vector<Topic>& topics,
                   const void* object, unsigned int timeout, Signal&& signal_of, Drop&& drop,
                   Watched& ready) {
  std::vector<Watched> gone;
  return wait(
      timeout, result::timed_out,
      {object, topics.data(), topics.size(), watched.size() > short_test},
      [&](const Caller*) -> std::optional<unsigned int> {
        if (watched.empty()) return result::nothing_selected;
        std::optional<unsigned int> answer;
        gone.clear();
        const auto left = std::remove_if(watched.begin(), watched.end(), [&](const Watched& entry) {
          if (answer) return false;
          const unsigned int signal = signal_of(entry);
          if (signal == result::ok) {
            ready = entry;
            answer = result::ok;
          }
          if (signal != result::not_connected) return false;
          gone.push_back(entry);
          return true;
        });
        watched.erase(left, watched.end());
        if (!gone.empty()) drop(gone);
        if (watched.empty()) everything_changed(topics.front());  // the next test ends this wait
        return answer;
      },
      []() -> std::optional<unsigned int> { return std::nullopt; });
}

}  // namespace

unsigned int Port_Factory_i::wait_for_signal(Owner_Set& set, unsigned int& ready,
                                             unsigned int timeout) {
  // A port is tested once per pass, however often it is listed.
  std::vector<Port_impl*> watched;
  std::vector<Topic> topics;
  std::unordered_set<Port_impl*> known;
  for (const auto& port : set) {
    if (!known.insert(port.get()).second) continue;
    watched.push_back(port.get());
    topics.push_back(port->packets());
  }
  Port_impl* found = nullptr;
  const unsigned int waited = watch(
      watched, topics, &set, timeout, [](Port_impl* port) { return port->owner_signal(); },
      [&](const std::vector<Port_impl*>& gone) {
        const std::unordered_set<Port_impl*> dropped(gone.begin(), gone.end());
        set.erase(std::remove_if(set.begin(), set.end(),
                                 [&](const auto& port) { return dropped.count(port.get()) != 0; }),
                  set.end());
      },
      found);
  if (waited == result::ok) ready = found->port_id();
  if (waited == result::timed_out) ready = 0;
  if (waited != result::nothing_selected) signal_off(set);
  return waited;
}

unsigned int Port_Factory_i::wait_for_replay_signal(Client_Set& set, unsigned int& ready,
                                                    unsigned int timeout) {
  using Client = std::pair<unsigned int, Port_impl*>;
  std::vector<Client> watched;
  std::vector<Topic> topics;
  for (const auto& [handle, port] : set) {
    watched.emplace_back(handle, port.get());
    topics.push_back(port->replies(handle));
  }
  Client found;
  const unsigned int waited = watch(
      watched, topics, &set, timeout,
      [](const Client& client) { return client.second->reply_signal(client.first); },
      [&](const std::vector<Client>& gone) {
        const auto dropped = [&](const auto& entry) {
          return std::binary_search(
              gone.begin(), gone.end(), Client(entry.first, {}),
              [](const Client& a, const Client& b) { return a.first < b.first; });
        };
        set.erase(std::remove_if(set.begin(), set.end(), dropped), set.end());
      },
      found);
  if (waited == result::ok) ready = found.first;
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
                                               CORBA::ULong_out ready, CORBA::ULong timeout) try {
  Owner_Set set;
  try {
    for (CORBA::ULong i = 0; i < handles.length(); ++i) {
      const auto port = get_port(static_cast<unsigned int>(handles[i]));
      if (!port) return result::unknown_handle;
      set.push_back(port);
      // The ports counted so far keep their count on an early end.
      if (const unsigned int refused = port->select(true)) return refused;
    }
    return wait_for_signal(set, ready, timeout);
  } catch (const std::bad_alloc&) {
    signal_off(set);
    throw;
  }
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}

CORBA::ULong Port_Factory_i::select_replay_port(const Varo::PORT_HANDLE_SET& handles,
                                                CORBA::ULong_out ready, CORBA::ULong timeout) try {
  std::map<unsigned int, boost::shared_ptr<Port_impl>> clients;
  for (CORBA::ULong i = 0; i < handles.length(); ++i) {
    const unsigned int handle = handles[i];
    auto port = find_port(handle);
    if (!port) return result::unknown_handle;
    if (const unsigned int refused = port->select_replay(handle, true)) return refused;
    clients.emplace(handle, std::move(port));  // the first entry of a handle stays
  }
  Client_Set set;
  for (const auto& client : clients) set.insert(client);  // in order: each goes to the end
  return wait_for_replay_signal(set, ready, timeout);
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}
