#include "middleware/orb/served_calls.h"

#include <string_view>

namespace portsvc::orb {
namespace {

// In the interface's order.
constexpr std::array<std::string_view, Served_Calls::operations> names{"connect_port",
                                                                       "set_connected_host",
                                                                       "disconnect_port",
                                                                       "create_port",
                                                                       "setPersistent",
                                                                       "packet_foward",
                                                                       "packet_foward_front",
                                                                       "packet_receive",
                                                                       "packet_receive_n",
                                                                       "current_connection",
                                                                       "exist",
                                                                       "delete_port",
                                                                       "patch_object_name",
                                                                       "packet_replay",
                                                                       "packet_replay_wait",
                                                                       "select_event_port",
                                                                       "select_replay_port",
                                                                       "clear_event",
                                                                       "event_count",
                                                                       "add_event",
                                                                       "send_event",
                                                                       "declare_event",
                                                                       "declare_event_n",
                                                                       "get_port_info",
                                                                       "make_snapshot",
                                                                       "load_snapshot",
                                                                       "sendEvcDatatoSlave",
                                                                       "push_remote_consumer",
                                                                       "update_port",
                                                                       "update_port_front",
                                                                       "force_toslave",
                                                                       "inquire_master",
                                                                       "get_remote_sub",
                                                                       "heart_bit",
                                                                       "copy_enable",
                                                                       "gen_evc_code",
                                                                       "clearAll",
                                                                       "openSnapShot",
                                                                       "other"};

constexpr std::size_t other = names.size() - 1;

// Found by a hash of their length and three letters, which no two of them share: every call pays
// for this, and a walk through the names would compare twenty of them.
constexpr std::size_t places = 256;

constexpr std::size_t place_of(std::string_view name) {
  const auto letter = [name](std::size_t at) -> std::size_t {
    return static_cast<unsigned char>(name[at]);
  };
  return (name.size() + 3 * letter(0) + 20 * letter(name.size() / 2) + letter(name.size() - 1)) %
         places;
}

constexpr std::array<std::uint8_t, places> hashed() {
  std::array<std::uint8_t, places> table{};
  for (auto& place : table) place = other;
  for (std::size_t i = 0; i < other; ++i) table[place_of(names[i])] = static_cast<std::uint8_t>(i);
  return table;
}

constexpr auto table = hashed();

constexpr bool all_found() {
  for (std::size_t i = 0; i < other; ++i) {
    if (table[place_of(names[i])] != i) return false;
  }
  return true;
}
static_assert(all_found(), "two operations share a place: choose other factors");

// Takes, sends, replies and selections.
constexpr std::array<bool, Served_Calls::operations> waiting() {
  std::array<bool, Served_Calls::operations> waits{};
  for (std::size_t i = 0; i < other; ++i) {
    waits[i] = names[i].substr(0, 7) == "packet_" || names[i].substr(0, 7) == "select_";
  }
  return waits;
}

constexpr std::uint64_t nanoseconds(double seconds) {
  return static_cast<std::uint64_t>(seconds * 1e9);
}

constexpr auto bounds_in_nanoseconds() {
  std::array<std::uint64_t, Operation_Calls::bounds.size()> bounds{};
  for (std::size_t i = 0; i < bounds.size(); ++i)
    bounds[i] = nanoseconds(Operation_Calls::bounds[i]);
  return bounds;
}

}  // namespace

std::size_t Served_Calls::number_of(std::string_view operation) {
  if (operation.empty()) return other;
  const std::size_t number = table[place_of(operation)];
  return names[number] == operation ? number : other;
}

bool Served_Calls::may_wait(std::size_t operation) {
  static constexpr auto waits = waiting();
  return waits[operation];
}

void Served_Calls::count(std::size_t operation, std::chrono::nanoseconds took) {
  static constexpr auto bounds = bounds_in_nanoseconds();
  const auto length = static_cast<std::uint64_t>(took.count());
  // From the front: most calls are short.
  std::size_t group = 0;
  while (group < bounds.size() && length > bounds[group]) ++group;
  Tally& tally = tallies_[counter_shard()][operation];
  portsvc::count(tally.groups[group]);
  portsvc::count(tally.nanoseconds, length);
}

std::vector<Operation_Calls> Served_Calls::read() const {
  std::vector<Operation_Calls> calls(operations);
  for (std::size_t i = 0; i < operations; ++i) {
    Operation_Calls& sum = calls[i];
    sum.operation = names[i].data();
    std::uint64_t nanoseconds = 0;
    for (const auto& shard : tallies_) {
      const Tally& tally = shard[i];
      for (std::size_t group = 0; group < sum.groups.size(); ++group) {
        const std::uint64_t count = tally.groups[group].load(std::memory_order_relaxed);
        sum.groups[group] += count;
        sum.calls += count;
      }
      nanoseconds += tally.nanoseconds.load(std::memory_order_relaxed);
    }
    sum.seconds = static_cast<double>(nanoseconds) / 1e9;
  }
  return calls;
}

Served_Calls& served_calls() {
  static Served_Calls calls;
  return calls;
}

}  // namespace portsvc::orb
