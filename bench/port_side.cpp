// The sides that have the service's interface, and how sides alternate.
#include <fmt/format.h>

#include <utility>

#include "bench/contender.h"
#include "middleware/directory.h"

namespace portsvc::bench {
namespace {

constexpr CORBA::ULong queue_limit = 1024;  // never the limit
constexpr unsigned char last_mark = 'q';

std::string port_name(unsigned int owner) { return fmt::format("port{}", owner); }

class PortSide : public Side {
 public:
  explicit PortSide(std::unique_ptr<Server> server, std::unique_ptr<Server> sub = nullptr)
      : sub_(std::move(sub)),
        server_(std::move(server)),
        request_(payload(small_payload)),
        last_(request_) {
    last_[0] = last_mark;
  }

  std::vector<const Process*> processes() const override {
    std::vector<const Process*> all{&server_->process()};
    if (sub_) all.push_back(&sub_->process());
    return all;
  }

  void begin_requests(unsigned int owners, unsigned int clients) override {
    if (sub_ && !ids_.empty()) return;  // a sub server learns of ports when it starts
    for (unsigned int i = 0; i < ids_.size(); ++i) {
      require_ok(server()->delete_port(port_name(i).c_str()));
    }
    ids_.clear();
    handles_.clear();
    for (unsigned int i = 0; i < owners; ++i) {
      require_ok(server()->create_port(port_name(i).c_str(), PORT_MASTER, queue_limit));
      ids_.push_back(connect_owner(server(), port_name(i)));
    }
    for (unsigned int i = 0; i < clients; ++i) {
      handles_.push_back(connect_client(clients_server(), port_name(i % owners)));
    }
  }

  void request(unsigned int client, bool last) override {
    const CORBA::ULong handle = handles_[client];
    require_ok(clients_server()->packet_foward(handle, last ? last_ : request_, wait_limit));
    Varo::DATA_BUFFER_var reply;
    require_ok(clients_server()->packet_replay_wait(handle, reply.out(), wait_limit));
    if (reply->length() != small_payload) throw std::runtime_error("not the reply that was sent");
  }

  bool serve(unsigned int owner) override {
    CORBA::ULong source = 0;
    Varo::DATA_BUFFER_var packet;
    require_ok(server()->packet_receive(ids_[owner], source, packet.out(), wait_limit));
    require_ok(server()->packet_replay(source, packet.in(), 0));
    return packet[0] == last_mark;
  }

  void begin_events(std::size_t size, unsigned int, std::size_t pending) override {
    event_ = payload(size);
    require_ok(server()->delete_port("box"));
    require_ok(server()->create_port("box", PORT_EVENTBOX, static_cast<CORBA::ULong>(pending)));
    box_ = connect_owner(server(), "box");
  }

  void produce(unsigned int) override { require_ok(server()->send_event("box", event_)); }

  void await_event() override { require_ok(take(1, wait_limit).first); }

  std::size_t consume(std::size_t batch) override {
    const auto [code, taken] = take(static_cast<CORBA::ULong>(batch), 0);
    if (code != result::timed_out) require_ok(code);
    return taken;
  }

 private:
  Port_Factory_ptr server() const { return server_->get(); }
  Port_Factory_ptr clients_server() const { return sub_ ? sub_->get() : server_->get(); }
  std::pair<CORBA::ULong, std::size_t> take(CORBA::ULong most, CORBA::ULong timeout) const {
    Varo::DATA_BUFFER_SEQ_var events;
    const CORBA::ULong code = server()->packet_receive_n(box_, events.out(), most, timeout);
    return {code, events->length()};
  }

  const std::unique_ptr<Server> sub_;
  const std::unique_ptr<Server> server_;
  DATA_BUFFER request_;
  DATA_BUFFER last_;
  std::vector<CORBA::ULong> ids_;
  std::vector<CORBA::ULong> handles_;
  DATA_BUFFER event_;
  CORBA::ULong box_ = 0;
};

/// A name that no server of the run has had.
std::string fresh_name(const std::string& what) {
  static unsigned int count = 0;
  return fmt::format("{}{}", what, count++);
}

}  // namespace

void Side::not_measured() { throw std::logic_error("this side is not asked for that"); }

Contenders start_both(const Bench& bench) {
  Contenders both;
  both.push_back({"the service", {}});
  both.push_back({waking_servant, {}});
  for (Contender& contender : both) {
    const bool waking = contender.name == waking_servant;
    for (unsigned int i = 0; i < bench.amount(3U, 1U); ++i) {
      const std::string name = fresh_name(waking ? "waking" : "main");
      contender.sides.push_back(std::make_unique<PortSide>(std::make_unique<Server>(
          bench, name,
          waking ? servant_server(bench, waking_server, name) : main_server(bench, name))));
    }
  }
  return both;
}

Contender start_proxy(const Bench& bench) {
  const std::string name = fresh_name("main");
  auto main = std::make_unique<Server>(bench, name, main_server(bench, name));
  require_ok((*main)->create_port(port_name(0).c_str(), PORT_MASTER, queue_limit));
  const std::string directory = bench.folder.path(name + ".ini");
  enter(directory, name, role_main, main->reference());
  const std::string sub_name = fresh_name("sub");
  auto sub =
      std::make_unique<Server>(bench, sub_name, sub_server(bench, sub_name, name, directory));
  Contender proxy{"through a sub server", {}};
  proxy.sides.push_back(std::make_unique<PortSide>(std::move(main), std::move(sub)));
  return proxy;
}

std::vector<std::vector<double>> compare(const Contenders& contenders, unsigned int rounds,
                                         const std::function<std::vector<double>(Side&)>& measure) {
  std::vector<std::vector<std::vector<double>>> slices(contenders.size());  // by figure
  for (const Contender& contender : contenders) {
    for (const auto& side : contender.sides) measure(*side);
  }
  for (unsigned int round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < contenders.size(); ++i) {
      const auto& sides = contenders[i].sides;
      const auto figures = measure(*sides[round % sides.size()]);
      slices[i].resize(figures.size());
      for (std::size_t k = 0; k < figures.size(); ++k) slices[i][k].push_back(figures[k]);
    }
  }
  std::vector<std::vector<double>> medians;
  for (const auto& figures : slices) {
    medians.emplace_back();
    for (const auto& values : figures) medians.back().push_back(median(values));
  }
  return medians;
}

std::vector<const Process*> processes_of(const Contenders& contenders) {
  std::vector<const Process*> all;
  for (const Contender& contender : contenders) {
    for (const auto& side : contender.sides) {
      const auto some = side->processes();
      all.insert(all.end(), some.begin(), some.end());
    }
  }
  return all;
}

}  // namespace portsvc::bench
