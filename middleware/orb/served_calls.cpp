#include "middleware/orb/served_calls.h"

#include <algorithm>
#include <string_view>

namespace portsvc::orb {
namespace {

// In the interface's order.
constexpr std::array<const char*, Served_Calls::operations> names{"connect_port",
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

// Found by a hash: a call pays for this, and a walk through the names would compare twenty of them.
constexpr std::size_t places = 256;

constexpr std::size_t place_of(const char* name) {
  std::uint32_t hash = 2166136261U;
  for (; *name; ++name) hash = (hash ^ static_cast<unsigned char>(*name)) * 16777619U;
  return (hash ^ (hash >> 16)) % places;
}

constexpr std::array<std::uint8_t, places> hashed() {
  std::array<std::uint8_t, places> table{};
  for (auto& place : table) place = other;
  for (std::size_t i = 0; i < other; ++i) {
    std::size_t place = place_of(names[i]);
    while (table[place] != other) place = (place + 1) % places;
    table[place] = static_cast<std::uint8_t>(i);
  }
  return table;
}

constexpr auto table = hashed();

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

std::size_t Served_Calls::number_of(const char* operation) {
  std::size_t place = place_of(operation);
  while (table[place] != other && std::string_view(names[table[place]]) != operation) {
    place = (place + 1) % places;
  }
  return table[place];
}

void Served_Calls::count(std::size_t operation, std::chrono::nanoseconds took) {
  static constexpr auto bounds = bounds_in_nanoseconds();
  const auto length = static_cast<std::uint64_t>(took.count());
  const auto group = static_cast<std::size_t>(
      std::lower_bound(bounds.begin(), bounds.end(), length) - bounds.begin());
  Tally& tally = tallies_[counter_shard()][operation];
  portsvc::count(tally.groups[group]);
  portsvc::count(tally.nanoseconds, length);
}

std::vector<Operation_Calls> Served_Calls::read() const {
  std::vector<Operation_Calls> calls(operations);
  for (std::size_t i = 0; i < operations; ++i) {
    Operation_Calls& sum = calls[i];
    sum.operation = names[i];
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
