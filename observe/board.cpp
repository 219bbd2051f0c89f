#include "observe/board.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <vector>

#include "idl/port_codes.h"
#include "observe/readable.h"
#include "platform/clock.h"
#include "platform/memory.h"
#include "platform/version.h"

namespace portsvc::observe {
namespace {

using Json = nlohmann::ordered_json;
using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

Json json_of(const Flow& flow) {
  return {{"queued", flow.queued},
          {"put", flow.put},
          {"taken", flow.taken},
          {"dropped", flow.dropped},
          {"cleared", flow.cleared}};
}

Json json_of(const Port_Figures& port) {
  Json json{{"name", readable(port.name)},
            {"kind", port.kind == PORT_EVENTBOX ? "box"
                     : port.kind == PORT_SLAVE  ? "proxy"
                                                : "packet"},
            {"id", port.port_id},
            {"limit", port.limit},
            {"owner", port.owner_connected},
            {"host", readable(port.host)},
            {"clients", port.clients},
            {"packets", json_of(port.packets)},
            {"senders_waiting", port.senders_waiting},
            {"takers_waiting", port.takers_waiting},
            {"reply_takers_waiting", port.reply_takers_waiting},
            {"selections", port.selections}};
  if (port.kind == PORT_EVENTBOX) {
    json["persistent"] = port.persistent;
    json["copied"] = port.copied;
    json["copies_sent"] = port.copies.sent;
    json["copies_lost"] = port.copies.lost;
  } else {
    json["replies"] = json_of(port.replies);
  }
  return json;
}

std::uint64_t waiting(const Port_Figures& port) {
  return std::uint64_t{port.senders_waiting} + port.takers_waiting + port.reply_takers_waiting;
}

std::vector<const Port_Figures*> chosen(const std::vector<Port_Figures>& ports,
                                        const Board_Query& query) {
  std::vector<const Port_Figures*> rows;
  for (const Port_Figures& port : ports) {
    if (readable(port.name).find(query.search) != std::string::npos) rows.push_back(&port);
  }
  const auto by = [&](auto&& key) {
    std::stable_sort(rows.begin(), rows.end(), [&](const Port_Figures* a, const Port_Figures* b) {
      return key(*a) > key(*b);
    });
  };
  // In name order already.
  if (query.sort == "queued") by([](const Port_Figures& port) { return port.packets.queued; });
  if (query.sort == "waiting") by(waiting);
  if (query.sort == "dropped") {
    by([](const Port_Figures& port) { return port.packets.dropped + port.replies.dropped; });
  }
  if (query.sort == "put") by([](const Port_Figures& port) { return port.packets.put; });
  return rows;
}

Json servers(const About& about, const Server_Figures& server, Other_Boards& others) {
  const auto known = others.known();
  // What the server says of itself, if it has an address and answers there.
  const auto add_own_words = [&](const std::string& name, Json& json) {
    const auto address = others.addresses().find(name);
    if (address == others.addresses().end()) return;
    json["board"] = address->second;
    const auto answer = known.find(name);
    if (answer == known.end()) return;
    json["answers"] = answer->second.has_value();
    if (!answer->second) return;
    json["uptime"] = answer->second->uptime;
    if (answer->second->peer.empty()) return;
    json["peer"] = answer->second->peer;
    json["peer_up"] = answer->second->peer_up;
  };
  Json list = Json::array();
  Json self{{"name", readable(about.name)},
            {"role", about.role},
            {"self", true},
            {"uptime", calendar_seconds() - about.started}};
  if (const auto& peer = server.peer) {
    self["peer"] = readable(peer->name);
    self["peer_up"] = peer->up;
    list.push_back(std::move(self));
    Json main{{"name", readable(peer->name)},
              {"role", "main"},
              {"up", peer->up},
              {"for", calendar_seconds() - peer->since}};
    add_own_words(peer->name, main);
    list.push_back(std::move(main));
    return list;
  }
  list.push_back(std::move(self));
  for (const std::string& name : server.sub_servers) {
    Json sub{{"name", readable(name)}, {"role", "sub"}};
    add_own_words(name, sub);
    list.push_back(std::move(sub));
  }
  return list;
}

}  // namespace

std::string board_json(const About& about, const Observed& observed, Other_Boards& others,
                       const Board_Query& query) {
  const Server_Figures& server = observed.server;
  const auto rows = chosen(server.ports, query);
  Json ports = Json::array();
  for (std::size_t i = 0; i < std::min(rows.size(), std::min(query.limit, most_rows)); ++i) {
    ports.push_back(json_of(*rows[i]));
  }
  Json limits = Json::array();
  for (const Limit_Figures& limit : server.limits) {
    limits.push_back({{"of", limit.what},
                      {"used", limit.used},
                      {"most", limit.most},
                      {"refused", limit.refused}});
  }
  std::uint64_t calls = 0;
  for (const auto& operation : server.calls) calls += operation.calls;
  Json feeds = Json::array();
  for (const Feed_Figures& feed : observed.feeds) {
    feeds.push_back({{"box", readable(feed.box)},
                     {"running", feed.running},
                     {"starts", feed.starts},
                     {"lines", feed.lines}});
  }
  const Snapshot_State& snapshot = server.snapshot;
  Json document{{"version", version()},
                {"servers", servers(about, server, others)},
                {"at", duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count()},
                {"calls", calls},
                {"bytes_received", server.bytes_received},
                {"bytes_sent", server.bytes_sent},
                {"memory", resident_memory()},
                {"limits", limits},
                {"subscriptions", server.subscriptions},
                {"copies",
                 {{"sent", server.copies.sent},
                  {"lost", server.copies.lost},
                  {"pending", server.copies.pending}}},
                {"snapshot",
                 {{"age", snapshot.last_good == 0 ? Json(nullptr)
                                                  : Json(calendar_seconds() - snapshot.last_good)},
                  {"seconds", snapshot.seconds},
                  {"problem", readable(snapshot.problem)}}},
                {"feeds", feeds},
                {"ports_total", server.ports.size()},
                {"ports_found", rows.size()},
                {"ports", ports}};
  return document.dump(-1, ' ', false, Json::error_handler_t::replace);
}

const char* board_page() {
  static constexpr const char* page =
#include "board_page.inc"
      ;
  return page;
}

}  // namespace portsvc::observe
