// Operations that do not wait against the same calls on an empty servant of the same interface,
// built on the same broker with the same options.
#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/sections.h"

namespace portsvc::bench {
namespace {

constexpr unsigned int most_connections = 8;
constexpr std::size_t largest_take = 4U << 20;
// What waits in a port at a time stays in the processor's cache: the operations are measured, not
// the memory behind them.
constexpr std::size_t most_waiting = 256U << 10;

/// Events taken at once: 64, or fewer when they are large.
CORBA::ULong batch_of(std::size_t size) {
  return static_cast<CORBA::ULong>(std::clamp<std::size_t>(largest_take / size, 1, 64));
}

/// Events or replies that wait at a time.
unsigned int waiting_of(std::size_t size) {
  return static_cast<unsigned int>(std::clamp<std::size_t>(most_waiting / size, 1, reply_limit));
}

/// One side of the comparison: the real server, or the empty one.
class Compared {
 public:
  Compared(Port_Factory_ptr server, bool real) : server_(server), real_(real) {
    for (unsigned int i = 0; i < most_connections; ++i) {
      const std::string port = fmt::format("reply{}", i);
      require_ok(server_->create_port(port.c_str(), PORT_MASTER, 8));
      clients_.push_back(connect_client(server_, port));
    }
  }

  Work exist() const {
    return {{}, [this](unsigned int) {
              require_ok(static_cast<CORBA::ULong>(server_->exist("reply0")));
            }};
  }

  /// Into one box, which is full: every event drives out an older one.
  Work send_event(std::size_t size) const {
    const std::string box = fmt::format("in{}", size);
    require_ok(server_->create_port(box.c_str(), PORT_EVENTBOX, waiting_of(size)));
    return {{}, [=, data = payload(size)](unsigned int) {
              require_ok(server_->send_event(box.c_str(), data));
            }};
  }

  /// Full batches, from a box per connection, filled before.
  Work packet_receive_n(std::size_t size) const {
    const CORBA::ULong batch = batch_of(size);
    const auto takes =
        static_cast<unsigned int>(std::clamp<std::size_t>(most_waiting / size / batch, 1, 4));
    std::vector<CORBA::ULong> ids;
    const auto first_code = static_cast<CORBA::ULong>(size);
    for (unsigned int i = 0; i < most_connections; ++i) {
      const std::string box = fmt::format("out{}_{}", size, i);
      require_ok(server_->create_port(box.c_str(), PORT_EVENTBOX, batch * takes));
      require_ok(server_->add_event(box.c_str(), first_code + i));
      const CORBA::ULong id = connect_owner(server_, box);
      ids.push_back(real_ ? id : static_cast<CORBA::ULong>(size));
    }
    DATA_BUFFER_SEQ events;
    events.length(batch);
    for (CORBA::ULong i = 0; i < batch; ++i) events[i] = payload(size);
    return {[=](unsigned int thread) {
              for (unsigned int i = 0; i < takes; ++i) {
                require_ok(server_->declare_event_n(first_code + thread, events, 0));
              }
            },
            [=](unsigned int thread) {
              Varo::DATA_BUFFER_SEQ_var taken;
              require_ok(server_->packet_receive_n(ids[thread], taken.out(), batch, 0));
              if (taken->length() != batch) throw std::runtime_error("not a full batch of events");
            },
            takes};
  }

  /// Each connection has a port with a client of its own, which takes the replies afterwards.
  Work packet_replay(std::size_t size) const {
    const unsigned int replies = waiting_of(size);
    return {{},
            [=, data = payload(size)](unsigned int thread) { reply(thread, data); },
            replies,
            [=](unsigned int thread) {
              for (unsigned int i = 0; i < replies; ++i) take_reply(thread, size);
            }};
  }

  /// The replies are there already.
  Work packet_replay_wait(std::size_t size) const {
    const unsigned int replies = waiting_of(size);
    return {[=, data = payload(size)](unsigned int thread) {
              for (unsigned int i = 0; i < replies; ++i) reply(thread, data);
            },
            [=](unsigned int thread) { take_reply(thread, size); }, replies};
  }

 private:
  void reply(unsigned int thread, const DATA_BUFFER& data) const {
    require_ok(server_->packet_replay(clients_[thread], data, 0));
  }

  void take_reply(unsigned int thread, std::size_t size) const {
    Varo::DATA_BUFFER_var reply;
    const CORBA::ULong handle = real_ ? clients_[thread] : static_cast<CORBA::ULong>(size);
    require_ok(server_->packet_replay_wait(handle, reply.out(), 1));
    if (reply->length() != size) throw std::runtime_error("not the reply that was sent");
  }

  const Port_Factory_ptr server_;  // not owned
  const bool real_;
  std::vector<CORBA::ULong> clients_;  // by connection, each of a port of its own
};

}  // namespace

void measure_against_empty_servant(const Bench& bench) {
  // Two processes that do the same differ by where their memory happens to lie, most with large
  // payloads: each contender is several.
  const unsigned int pairs = bench.amount(3U, 1U);
  std::vector<std::unique_ptr<Server>> servers;
  std::vector<Compared> sides;  // the empty one and the real one in turn
  std::vector<const Process*> processes;
  for (unsigned int i = 0; i < pairs; ++i) {
    for (const bool real : {false, true}) {
      const std::string name = fmt::format("{}{}", real ? "limit" : "empty", i);
      servers.push_back(
          std::make_unique<Server>(bench, name, real ? main_server(bench, name) : empty_server()));
      sides.emplace_back(servers.back()->get(), real);
      processes.push_back(&servers.back()->process());
    }
  }

  const auto compare = [&](const std::string& what, std::size_t size, const std::string& note,
                           const std::function<Work(const Compared&)>& work_of) {
    std::vector<Work> works;
    for (const Compared& compared : sides) works.push_back(work_of(compared));
    for (const unsigned int connections : {1U, 2U, most_connections}) {
      // Four threads that are free to move share two processors now in this way, now in that, and a
      // call takes up to three times as long: they get fixed places. Sixteen even that out.
      std::unique_ptr<Pinned> pinned;
      if (connections == 1) pinned = std::make_unique<Pinned>(processes, Pinned::together);
      if (connections == 2) pinned = std::make_unique<Pinned>(processes, Pinned::apart);
      Effort effort = bench.effort;
      effort.rounds = effort.rounds * bench.amount(connections > 2 ? 4U : 2U, 1U) / pairs;
      const auto seconds = alternate(works, connections, effort, 2);
      Row row;
      row.what = what;
      row.payload = size == 0 ? "" : size_text(size);
      row.connections = connections;
      if (pinned) row.processors = pinned->processors();
      row.against = "empty servant";
      row.reference = seconds[0] * 1e6;
      row.value = seconds[1] * 1e6;
      row.unit = "us";
      row.target = Target{1.10};
      row.note = note;
      bench.table.add(row);
    }
  };

  compare("exist", 0, "", [](const Compared& compared) { return compared.exist(); });
  for (const std::size_t size :
       {std::size_t{100}, std::size_t{4} << 10, std::size_t{64} << 10, std::size_t{1} << 20}) {
    compare("send_event", size, "",
            [=](const Compared& compared) { return compared.send_event(size); });
    compare("packet_receive_n", size, fmt::format("{} at once", batch_of(size)),
            [=](const Compared& compared) { return compared.packet_receive_n(size); });
    compare("packet_replay", size, "",
            [=](const Compared& compared) { return compared.packet_replay(size); });
    compare("packet_replay_wait", size, "reply there",
            [=](const Compared& compared) { return compared.packet_replay_wait(size); });
  }
}

}  // namespace portsvc::bench
