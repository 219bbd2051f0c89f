#include "observe/metrics.h"

#include <prometheus/text_serializer.h>

#include <algorithm>
#include <map>
#include <utility>

#include "idl/port_codes.h"
#include "observe/readable.h"
#include "platform/clock.h"
#include "platform/memory.h"
#include "platform/version.h"

namespace portsvc::observe {
namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Labels = std::vector<ClientMetric::Label>;

/// Collects families in the order in which they are first named.
class Families {
 public:
  void gauge(const char* name, const char* help, double value, Labels labels = {}) {
    ClientMetric metric;
    metric.gauge.value = value;
    add(name, help, MetricType::Gauge, std::move(metric), std::move(labels));
  }
  void counter(const char* name, const char* help, std::uint64_t value, Labels labels = {}) {
    ClientMetric metric;
    metric.counter.value = static_cast<double>(value);
    add(name, help, MetricType::Counter, std::move(metric), std::move(labels));
  }
  void histogram(const char* name, const char* help, ClientMetric::Histogram value, Labels labels) {
    ClientMetric metric;
    metric.histogram = std::move(value);
    add(name, help, MetricType::Histogram, std::move(metric), std::move(labels));
  }

  std::string text() const { return prometheus::TextSerializer().Serialize(families_); }

 private:
  void add(const char* name, const char* help, MetricType type, ClientMetric metric,
           Labels labels) {
    const auto [place, added] = places_.emplace(name, families_.size());
    if (added) families_.push_back({name, help, type, {}});
    metric.label = std::move(labels);
    families_[place->second].metric.push_back(std::move(metric));
  }

  std::vector<MetricFamily> families_;
  std::map<std::string, std::size_t> places_;
};

void add_box(Families& families, const Port_Figures& box, const Labels& labels) {
  families.gauge("portsvc_box_events", "Events in the box", static_cast<double>(box.packets.queued),
                 labels);
  families.gauge("portsvc_box_limit", "Events that the box holds at most", box.limit, labels);
  families.counter("portsvc_box_events_put_total", "Events put into the box", box.packets.put,
                   labels);
  families.counter("portsvc_box_events_taken_total", "Events taken out by an owner",
                   box.packets.taken, labels);
  families.counter("portsvc_box_events_dropped_total", "Events dropped because the box was full",
                   box.packets.dropped, labels);
  families.counter("portsvc_box_events_cleared_total", "Events dropped by request",
                   box.packets.cleared, labels);
  families.counter("portsvc_box_copies_sent_total", "Copies of its events that sub servers took",
                   box.copies.sent, labels);
  families.counter("portsvc_box_copies_lost_total",
                   "Copies of its events that no sub server has got", box.copies.lost, labels);
}

void add_packet_port(Families& families, const Port_Figures& port, const Labels& labels) {
  const auto add_flow = [&](const Flow& flow, const char* of) {
    Labels all = labels;
    all.push_back({"of", of});
    families.gauge("portsvc_port_queued", "Packets or replies in the port's queue",
                   static_cast<double>(flow.queued), all);
    families.counter("portsvc_port_put_total", "Packets or replies put into the port", flow.put,
                     all);
    families.counter("portsvc_port_taken_total", "Packets or replies taken out", flow.taken, all);
    families.counter("portsvc_port_dropped_total",
                     "Packets or replies dropped because the queue was full", flow.dropped, all);
  };
  add_flow(port.packets, "packets");
  add_flow(port.replies, "replies");
  families.gauge("portsvc_port_limit", "Packets that the port's queue holds at most", port.limit,
                 labels);
  families.gauge("portsvc_port_clients", "Clients connected to the port",
                 static_cast<double>(port.clients), labels);
  families.gauge("portsvc_port_senders_waiting", "Senders that wait for the owner to take",
                 port.senders_waiting, labels);
  families.gauge("portsvc_port_reply_takers_waiting", "Clients that wait for a reply",
                 port.reply_takers_waiting, labels);
}

void add_ports(Families& families, const std::vector<Port_Figures>& ports) {
  std::map<std::string, std::size_t> kinds{{"packet", 0}, {"proxy", 0}, {"box", 0}};
  std::size_t shown = 0;
  for (const Port_Figures& port : ports) {
    const char* const kind = port.kind == PORT_EVENTBOX ? "box"
                             : port.kind == PORT_SLAVE  ? "proxy"
                                                        : "packet";
    ++kinds[kind];
    if (shown == ports_with_series) continue;
    ++shown;
    const Labels labels{{port.kind == PORT_EVENTBOX ? "box" : "port", readable(port.name)}};
    if (port.kind == PORT_EVENTBOX) {
      add_box(families, port, labels);
    } else {
      add_packet_port(families, port, labels);
    }
    const Labels named{{"port", readable(port.name)}};
    families.gauge("portsvc_port_owner_connected", "1 while an owner is connected",
                   port.owner_connected ? 1 : 0, named);
    families.gauge("portsvc_port_takers_waiting", "Owner's calls that wait for a packet or event",
                   port.takers_waiting, named);
  }
  for (const auto& [kind, count] : kinds) {
    families.gauge("portsvc_ports", "Ports of the server", static_cast<double>(count),
                   {{"kind", kind}});
  }
  families.gauge("portsvc_ports_without_series", "Ports that have no series of their own",
                 static_cast<double>(ports.size() - shown));
}

void add_calls(Families& families, const std::vector<orb::Operation_Calls>& calls) {
  for (const orb::Operation_Calls& operation : calls) {
    if (operation.calls == 0) continue;
    ClientMetric::Histogram histogram;
    histogram.sample_count = operation.calls;
    histogram.sample_sum = operation.seconds;
    std::uint64_t below = 0;
    for (std::size_t i = 0; i < operation.bounds.size(); ++i) {
      below += operation.groups[i];
      histogram.bucket.push_back({below, operation.bounds[i]});
    }
    families.histogram("portsvc_call_duration_seconds",
                       "Calls by how long they took in the server, waits included",
                       std::move(histogram), {{"operation", operation.operation}});
  }
}

void add_limits(Families& families, const Server_Figures& server) {
  for (const Limit_Figures& limit : server.limits) {
    const Labels labels{{"of", limit.what}};
    families.gauge("portsvc_in_use", "How much there is of what is limited",
                   static_cast<double>(limit.used), labels);
    families.gauge("portsvc_limit", "How much there may be of it", static_cast<double>(limit.most),
                   labels);
    families.counter("portsvc_refused_total", "What was refused because of the limit",
                     limit.refused, labels);
  }
}

void add_snapshots(Families& families, const Snapshot_State& snapshot) {
  families.counter("portsvc_snapshots_written_total", "Snapshots written whole", snapshot.written);
  families.counter("portsvc_snapshots_failed_total", "Snapshots that could not be written",
                   snapshot.failed);
  if (snapshot.last_good == 0) return;
  families.gauge("portsvc_snapshot_timestamp_seconds", "When the last whole one was written",
                 static_cast<double>(snapshot.last_good));
  families.gauge("portsvc_snapshot_age_seconds", "Time since the last whole one",
                 static_cast<double>(calendar_seconds() - snapshot.last_good));
  families.gauge("portsvc_snapshot_duration_seconds", "How long the last whole one took",
                 snapshot.seconds);
}

void add_other_servers(Families& families, const Server_Figures& server) {
  if (const auto& peer = server.peer) {
    const Labels labels{{"peer", readable(peer->name)}};
    families.gauge("portsvc_peer_up", "1 while the main server is reached", peer->up ? 1 : 0,
                   labels);
    families.gauge("portsvc_peer_since_timestamp_seconds",
                   "Since when it has been reached, or away", static_cast<double>(peer->since),
                   labels);
    families.counter("portsvc_peer_lost_total", "How often it was lost", peer->lost, labels);
    return;
  }
  families.gauge("portsvc_sub_servers", "Sub servers that copies go to",
                 static_cast<double>(server.sub_servers.size()));
  families.counter("portsvc_copies_sent_total", "Copies of event data that sub servers took",
                   server.copies.sent);
  families.counter("portsvc_copies_lost_total", "Copies that no sub server has got",
                   server.copies.lost);
  families.gauge("portsvc_copies_pending", "Copies on their way",
                 static_cast<double>(server.copies.pending));
}

}  // namespace

std::string metrics_text(const About& about, const Observed& observed) {
  Families families;
  const Server_Figures& server = observed.server;
  families.gauge("portsvc_build_info", "The server", 1,
                 {{"version", version()}, {"role", about.role}, {"name", readable(about.name)}});
  add_other_servers(families, server);
  add_calls(families, server.calls);
  add_limits(families, server);
  families.counter("portsvc_connections_taken_total", "Connections that clients have opened",
                   server.connections_taken);
  families.counter("portsvc_payload_bytes_total", "Payload bytes in calls", server.bytes_received,
                   {{"direction", "received"}});
  families.counter("portsvc_payload_bytes_total", "", server.bytes_sent, {{"direction", "sent"}});
  families.gauge("portsvc_subscriptions", "Subscriptions of event boxes to codes",
                 static_cast<double>(server.subscriptions));
  add_snapshots(families, server.snapshot);
  for (const Feed_Figures& feed : observed.feeds) {
    const Labels labels{{"box", readable(feed.box)}};
    families.gauge("portsvc_feed_running", "1 while the feed's command runs", feed.running ? 1 : 0,
                   labels);
    families.counter("portsvc_feed_starts_total", "How often it was started", feed.starts, labels);
    families.counter("portsvc_feed_lines_total", "Lines that have gone into the box", feed.lines,
                     labels);
  }
  add_ports(families, server.ports);
  families.gauge("process_resident_memory_bytes", "Memory of the process",
                 static_cast<double>(resident_memory()));
  families.gauge("process_start_time_seconds", "When the process was started",
                 static_cast<double>(about.started));
  return families.text();
}

}  // namespace portsvc::observe
