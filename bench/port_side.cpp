// The sides that have the service's interface, and how sides alternate.
#include <fmt/format.h>

#include <fstream>
#include <utility>

#include "bench/contender.h"

namespace portsvc::bench {
namespace {

constexpr CORBA::ULong request_size = 100;
constexpr CORBA::ULong queue_limit = 1024;  // never the limit
constexpr unsigned char last_mark = 'q';

std::string port_name(unsigned int owner) { return fmt::format("port{}", owner); }

class PortSide : public Side {
 public:
  explicit PortSide(std::unique_ptr<Server> server, std::unique_ptr<Server> sub = nullptr)
      : sub_(std::move(sub)),
        server_(std::move(server)),
        request_(payload(request_size)),
        last_(request_) {
    last_[0] = last_mark;
  }

  std::vector<const Process*> processes() const override {
    std::vector<const Process*> all{&server_->process()};
    if (sub_) all.push_back(&sub_->process());
    return all;
  }

  void begin_requests(unsigned int owners, unsigned int clients, Taking taking) override {
    if (sub_ && !ports_.empty()) return;  // a sub server learns of ports when it starts
    taking_ = taking;
    for (const std::string& port : ports_) require_ok(server()->delete_port(port.c_str()));
    ports_.clear();
    ids_.clear();
    handles_.clear();
    for (unsigned int i = 0; i < owners; ++i) {
      ports_.push_back(port_name(i));
      require_ok(server()->create_port(ports_.back().c_str(), PORT_MASTER, queue_limit));
      // A sender that comes between two selections would wait for a take.
      ids_.push_back(taking == Taking::waiting ? connect_owner(server(), ports_.back())
                                               : own_and_admit_always(server(), ports_.back()));
    }
    for (unsigned int i = 0; i < clients; ++i) {
      handles_.push_back(connect_client(clients_server(), ports_[i % owners]));
    }
  }

  void request(unsigned int client, bool last) override {
    const CORBA::ULong handle = handles_[client];
    require_ok(clients_server()->packet_foward(handle, last ? last_ : request_, wait_limit));
    Varo::DATA_BUFFER_var reply;
    require_ok(clients_server()->packet_replay_wait(handle, reply.out(), wait_limit));
    if (reply->length() != request_size) throw std::runtime_error("not the reply that was sent");
  }

  bool serve(unsigned int owner) override {
    CORBA::ULong id = ids_[owner];
    CORBA::ULong timeout = wait_limit;
    if (taking_ == Taking::selecting) {
      Varo::PORT_HANDLE_SET handles;
      handles.length(1);
      handles[0] = id;
      require_ok(server()->select_event_port(handles, id, wait_limit));
      timeout = 0;
    }
    CORBA::ULong source = 0;
    Varo::DATA_BUFFER_var packet;
    require_ok(server()->packet_receive(id, source, packet.out(), timeout));
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

  void await_event() override {
    Varo::DATA_BUFFER_SEQ_var events;
    require_ok(server()->packet_receive_n(box_, events.out(), 1, wait_limit));
  }

  std::size_t consume(std::size_t batch) override {
    Varo::DATA_BUFFER_SEQ_var events;
    const CORBA::ULong code =
        server()->packet_receive_n(box_, events.out(), static_cast<CORBA::ULong>(batch), 0);
    if (code == result::timed_out) return 0;
    require_ok(code);
    return events->length();
  }

 private:
  Port_Factory_ptr server() const { return server_->get(); }
  Port_Factory_ptr clients_server() const { return sub_ ? sub_->get() : server_->get(); }

  const std::unique_ptr<Server> sub_;
  const std::unique_ptr<Server> server_;
  DATA_BUFFER request_;
  DATA_BUFFER last_;
  Taking taking_ = Taking::waiting;
  std::vector<std::string> ports_;
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

Contender start_product(const Bench& bench, const std::string& waits) {
  Contender product{waits, {}, waits != "early"};
  for (unsigned int i = 0; i < (product.paused ? 1U : bench.amount(3U, 1U)); ++i) {
    const std::string name = fresh_name("main");
    product.sides.push_back(std::make_unique<PortSide>(
        std::make_unique<Server>(bench, name, main_server(bench, name, waits))));
  }
  return product;
}

Contender start_proxy(const Bench& bench, const std::string& waits) {
  const std::string name = fresh_name("main");
  auto main = std::make_unique<Server>(bench, name, main_server(bench, name, waits));
  require_ok((*main)->create_port(port_name(0).c_str(), PORT_MASTER, queue_limit));
  const std::string directory = bench.folder.path(name + ".ini");
  std::ofstream(directory) << fmt::format("[{}]\nrole = main\nreference = {}\n", name,
                                          main->reference());
  const std::string sub_name = fresh_name("sub");
  auto sub =
      std::make_unique<Server>(bench, sub_name, sub_server(bench, sub_name, name, directory));
  Contender proxy{waits + ", sub server", {}, waits != "early"};
  proxy.sides.push_back(std::make_unique<PortSide>(std::move(main), std::move(sub)));
  return proxy;
}

Contender start_waking_servant(const Bench& bench) {
  Contender servant{waking_servant, {}};
  for (unsigned int i = 0; i < bench.amount(3U, 1U); ++i) {
    servant.sides.push_back(std::make_unique<PortSide>(
        std::make_unique<Server>(bench, fresh_name("waking"), waking_server())));
  }
  return servant;
}

std::vector<std::vector<double>> compare(
    const std::vector<const Contender*>& contenders, unsigned int rounds,
    const std::function<std::vector<double>(Side&, const Contender&)>& measure) {
  std::vector<std::vector<std::vector<double>>> slices(contenders.size());  // by figure
  for (const Contender* contender : contenders) {
    for (const auto& side : contender->sides) measure(*side, *contender);
  }
  for (unsigned int round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < contenders.size(); ++i) {
      const auto& sides = contenders[i]->sides;
      const auto figures = measure(*sides[round % sides.size()], *contenders[i]);
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

std::vector<const Process*> processes_of(const std::vector<const Contender*>& contenders) {
  std::vector<const Process*> all;
  for (const Contender* contender : contenders) {
    for (const auto& side : contender->sides) {
      const auto some = side->processes();
      all.insert(all.end(), some.begin(), some.end());
    }
  }
  return all;
}

}  // namespace portsvc::bench
