// A small installation under fire: a main and two sub servers, dozens of clients that keep record
// of what was acknowledged, and a hand that kills, freezes, cuts, delays and damages. What must
// hold is checked all along; the end status is 1 when something did not.
//
//   chaos [--seconds N] [--seed N] [--waits early|paused]

#include <fmt/format.h>
#include <signal.h>
#include <sys/mount.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "idl/port_codes.h"
#include "middleware/orb/orb.h"
#include "tests/chaos/relay.h"
#include "tests/support/folder.h"
#include "tests/support/payload.h"
#include "tests/support/process.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;
using Varo::DT_PORT_SVC::Port_Factory;
using Varo::DT_PORT_SVC::Port_Factory_ptr;
using Varo::DT_PORT_SVC::Port_Factory_var;

constexpr int main_index = 0;
constexpr int server_count = 3;
constexpr std::array<const char*, server_count> names{"main", "sub1", "sub2"};
constexpr unsigned int wait_seconds = 2;  // of every wait of a client
constexpr unsigned int unanswered = 1;    // no server's code
constexpr auto call_slack = 5s;           // what a call takes beyond its wait, at most
constexpr auto aftermath = 8s;            // calls to peers that had just begun may still fail
constexpr auto peace = 6s;                // at the end, in which nothing may fail or get lost

std::atomic<bool> stop{false};
std::mutex report_lock;
std::atomic<int> violations{0};
std::map<std::string, long> counts;  // guarded by report_lock

template <class... Args>
void violated(fmt::format_string<Args...> text, Args&&... args) {
  ++violations;
  const std::lock_guard<std::mutex> guard(report_lock);
  fmt::print("VIOLATED: {}\n", fmt::format(text, std::forward<Args>(args)...));
}

void count(const std::string& what, long times = 1) {
  const std::lock_guard<std::mutex> guard(report_lock);
  counts[what] += times;
}

/// A server, its relay, and what has been done to it.
class Server {
 public:
  Server(const TemporaryFolder& folder, int index, std::string waits)
      : folder_(folder),
        name_(names[static_cast<std::size_t>(index)]),
        waits_(std::move(waits)),
        port_(free_port()),
        relay_(port_) {}

  void start() {
    const bool main = name_ == "main";
    Words command = Words{PORT_SERVER} +
                    server_words(main ? "main" : "sub", name_, port_, folder_.path()) +
                    Words{"--directory",      folder_.path("servers.ini"),
                          "--waits",          waits_,
                          "--snapshot-every", "1",
                          "--call-timeout",   "2"};
    if (!main) command = command + Words{"--main", "main"};
    const std::string files = folder_.path(fmt::format("{}{}", name_, epoch_ + 1));
    process_ = std::make_unique<Process>(command, files);
    if (!process_->serves()) violated("{} does not start: {}", name_, process_->err());
    ++epoch_;
  }
  std::string corbaloc() const {
    return fmt::format("corbaloc:iiop:127.0.0.1:{}/{}", relay_.port(), object_key);
  }

  /// While it lives, and for a while after, calls to the server may fail.
  class Disturbance {
   public:
    explicit Disturbance(Server& server) : server_(server) { ++server_.disturbed_; }
    ~Disturbance() {
      server_.calm_at_ = (Steady::now() + aftermath).time_since_epoch().count();
      --server_.disturbed_;
    }

   private:
    Server& server_;
  };
  bool calm_since(Steady::time_point start) const {
    return disturbed_ == 0 && start.time_since_epoch().count() > calm_at_;
  }

  Process& process() { return *process_; }
  Relay& relay() { return relay_; }
  int port() const { return port_; }
  const std::string& name() const { return name_; }
  /// The number of its life.
  int epoch() const { return epoch_; }

 private:
  const TemporaryFolder& folder_;
  const std::string name_;
  const std::string waits_;
  const int port_;
  Relay relay_;
  std::unique_ptr<Process> process_;
  std::atomic<int> epoch_{0};
  std::atomic<int> disturbed_{0};
  std::atomic<Steady::rep> calm_at_{0};
};

std::array<std::unique_ptr<Server>, server_count> servers;

bool all_calm_since(Steady::time_point start) {
  return std::all_of(servers.begin(), servers.end(),
                     [=](const auto& server) { return server->calm_since(start); });
}

/// The way of a client to a server, and the record of the handles it was given.
class Way {
 public:
  Way(const orb::Broker& broker, int index) : broker_(broker), server_(*servers[index]) {}

  /// Makes a call and answers its code; `unanswered` when the broker failed it, which only a
  /// disturbance may explain, and when the server has been started anew meanwhile.
  template <class Call>
  unsigned int call(const char* what, Call&& the_call) {
    const auto start = Steady::now();
    const int life = server_.epoch();
    unsigned int code = unanswered;
    std::string failure;
    try {
      const orb::CallTimeout scope(std::chrono::seconds(wait_seconds) + call_slack);
      if (CORBA::is_nil(factory_.in())) {
        const CORBA::Object_var object = broker_.from_text(server_.corbaloc());
        factory_ = Port_Factory::_unchecked_narrow(object);
      }
      code = the_call(factory_.in());
    } catch (const CORBA::Exception& exception) {
      failure = orb::describe(exception);
      std::this_thread::sleep_for(50ms);
    }
    count(code != unanswered ? "calls answered" : "calls failed");
    if (Steady::now() - start > std::chrono::seconds(wait_seconds) + call_slack + 3s) {
      violated("{} at {} took longer than its bound", what, server_.name());
    }
    const bool calm = server_.calm_since(start) && servers[main_index]->calm_since(start);
    if (code == unanswered && calm && !stop)
      violated("{} at {}: {}", what, server_.name(), failure);
    return life == server_.epoch() ? code : unanswered;
  }

  /// A client handle, 0 when there is none to be had now.
  unsigned int connect_client(const std::string& port) {
    CORBA::ULong handle = 0, owner = 0;
    const int life = server_.epoch();
    const auto connect = [&](Port_Factory_ptr at) {
      return at->connect_port(port.c_str(), handle, CONNECT_CLIENT, ACCESS_WAIT, owner);
    };
    if (call("connect", connect) != result::ok) return 0;
    const std::lock_guard<std::mutex> guard(given_lock_);
    const auto [known, fresh] = given_.emplace(std::tuple(server_.name(), life, handle), port);
    if (!fresh && life == server_.epoch()) {
      violated("{} gave handle {} to {} and to {}", server_.name(), handle, known->second, port);
    }
    return handle;
  }

  void disconnect(unsigned int handle) {
    {
      const std::lock_guard<std::mutex> guard(given_lock_);
      given_.erase({server_.name(), server_.epoch(), handle});
    }
    call("disconnect", [&](Port_Factory_ptr at) { return at->disconnect_port(handle); });
  }

  Server& server() { return server_; }

 private:
  // Handles in use: server, its life, handle; and the port they were given for.
  using Given = std::map<std::tuple<std::string, int, unsigned int>, std::string>;
  inline static std::mutex given_lock_;  // guards given_
  inline static Given given_;

  const orb::Broker& broker_;
  Server& server_;
  Port_Factory_var factory_;
};

void make_port(Way& way, const std::string& port, unsigned int kind) {
  way.call("create", [&](Port_Factory_ptr at) {
    return at->exist(port.c_str()) == 0 ? result::ok : at->create_port(port.c_str(), kind, 100000);
  });
}

/// Owns a port of the main server and answers every packet with its own payload.
void own(const orb::Broker& broker, int index, const std::string& port) {
  Way way(broker, index);
  while (!stop) {
    CORBA::ULong id = 0, owner = 0;
    unsigned int code = way.call("own", [&](Port_Factory_ptr at) {
      return at->connect_port(port.c_str(), id, CONNECT_OWNER, ACCESS_WAIT, owner);
    });
    if (code == result::owner_exists) {  // our own, from before a cut
      way.call("free", [&](Port_Factory_ptr at) { return at->disconnect_port(owner); });
    }
    while ((code == result::ok || code == result::timed_out) && !stop) {
      CORBA::ULong source = 0;
      Varo::DATA_BUFFER_var data;
      code = way.call("receive", [&](Port_Factory_ptr at) {
        return at->packet_receive(id, source, data.out(), wait_seconds);
      });
      if (code != result::ok) continue;
      const unsigned int answered = way.call("answer", [&](Port_Factory_ptr at) {
        return at->packet_replay(source, data.in(), wait_seconds);
      });
      if (answered == unanswered) code = unanswered;
    }
    if (!stop) std::this_thread::sleep_for(100ms);
  }
}

/// Asks and is answered with its own words, or not at all.
void ask(const orb::Broker& broker, int index, const std::string& port, int number) {
  Way way(broker, index);
  unsigned int handle = 0;
  for (long n = 0; !stop; ++n) {
    if (handle == 0) handle = way.connect_client(port);
    if (handle == 0) {
      std::this_thread::sleep_for(100ms);
      continue;
    }
    const std::string mine = fmt::format("{} {} {} {}", names[index], port, number, n);
    const auto start = Steady::now();
    Varo::DATA_BUFFER_var data;
    const Varo::DATA_BUFFER sent = wire(mine);
    unsigned int code = way.call(
        "send", [&](Port_Factory_ptr at) { return at->packet_foward(handle, sent, wait_seconds); });
    if (code == result::ok) {
      code = way.call("wait for the reply", [&](Port_Factory_ptr at) {
        return at->packet_replay_wait(handle, data.out(), wait_seconds);
      });
    }
    if (code == result::ok) {
      // What comes late is an earlier answer to the same client, never somebody else's.
      const std::string got = text(data.in());
      if (got.rfind(mine.substr(0, mine.rfind(' ') + 1), 0) != 0) {
        violated("'{}' was answered with '{}'", mine, got);
      }
      count(got == mine ? "exchanges" : "late replies");
    } else {
      // A packet is taken over only while an owner is there to receive it.
      if (code == result::reply_timed_out && all_calm_since(start)) {
        violated("'{}' was taken over and never answered", mine);
      }
      way.disconnect(std::exchange(handle, 0));
    }
  }
}

/// What was put into a box and what came out, since the main server's last start.
struct Box_Record {
  std::mutex lock;
  int epoch = 0;
  std::map<int, std::set<long>> acknowledged;  // and not taken yet; by producer
  std::map<int, std::set<long>> early;         // taken before the acknowledgement was noted
  std::map<int, long> last_taken;
  long failed_takes = 0;

  /// The caller holds the lock.
  void in_epoch(int now) {
    if (epoch == now) return;
    epoch = now;
    acknowledged.clear();
    early.clear();
    last_taken.clear();
    failed_takes = 0;
  }
};

void produce(const orb::Broker& broker, const std::string& box, int number, Box_Record& record) {
  Way way(broker, main_index);
  for (long n = 1; !stop; ++n) {
    const int life = way.server().epoch();
    const Varo::DATA_BUFFER data = wire(fmt::format("{} {}", number, n));
    const unsigned int code = way.call(
        "send_event", [&](Port_Factory_ptr at) { return at->send_event(box.c_str(), data); });
    if (code == result::unknown_name) make_port(way, box, PORT_EVENTBOX);
    std::unique_lock<std::mutex> guard(record.lock);
    record.in_epoch(way.server().epoch());
    if (code == result::ok && life == record.epoch && record.early[number].erase(n) == 0) {
      record.acknowledged[number].insert(n);
    }
    // The box drops nothing while its consumer keeps up.
    const bool far_ahead = record.acknowledged[number].size() > 5000;
    guard.unlock();
    std::this_thread::sleep_for(far_ahead ? 1s : 1ms);
  }
}

void consume(const orb::Broker& broker, const std::string& box, Box_Record& record) {
  Way way(broker, main_index);
  for (int quiet = 0; quiet < 3;) {
    Varo::DT_PORT_SVC::PORT_INFO info{};
    CORBA::ULong source = 0;
    Varo::DATA_BUFFER_var data;
    const int life = way.server().epoch();
    const unsigned int code = way.call("take an event", [&](Port_Factory_ptr at) {
      const unsigned int known = at->get_port_info(box.c_str(), info);
      return known == result::ok ? at->packet_receive(info.port_id, source, data.out(), 0) : known;
    });
    const std::lock_guard<std::mutex> guard(record.lock);
    record.in_epoch(way.server().epoch());
    if (code == unanswered) ++record.failed_takes;
    if (code != result::ok || life != record.epoch) {
      if (stop) ++quiet;
      std::this_thread::sleep_for(5ms);
      continue;
    }
    int number = 0;
    long n = 0;
    if (std::sscanf(text(data.in()).c_str(), "%d %ld", &number, &n) != 2) {
      violated("a foreign event in {}: '{}'", box, text(data.in()));
    }
    long& last = record.last_taken[number];
    if (n <= last) violated("{}: {} of producer {} after {}", box, n, number, last);
    last = n;
    if (record.acknowledged[number].erase(n) == 0) record.early[number].insert(n);
    count("events");
  }
  const std::lock_guard<std::mutex> guard(record.lock);
  long missing = 0;
  for (const auto& [number, acknowledged] : record.acknowledged) {
    missing += static_cast<long>(acknowledged.size());
  }
  if (missing > record.failed_takes) {
    violated("{} acknowledged events of {} are missing, {} takes failed", missing, box,
             record.failed_takes);
  }
}

/// One thing after the other goes wrong.
class Hand {
 public:
  Hand(unsigned int seed, std::string disk) : random_(seed), disk_(std::move(disk)) {}

  void act() {
    Server& server = *servers[pick(server_count)];
    const Server::Disturbance disturbance(server);
    constexpr void (Hand::*deeds[])(Server&) = {
        &Hand::kill,   &Hand::freeze,           &Hand::cut,          &Hand::cut,      &Hand::delay,
        &Hand::damage, &Hand::hold_connections, &Hand::read_nothing, &Hand::fill_disk};
    (this->*deeds[pick(static_cast<int>(std::size(deeds)))])(server);
  }

  void pause(int from, int more) {
    std::this_thread::sleep_for(std::chrono::milliseconds(from + pick(more)));
  }
  int pick(int below) { return std::uniform_int_distribution<int>(0, below - 1)(random_); }

 private:
  void kill(Server& server) {
    count("kills");
    server.process().kill();
    pause(0, 1500);
    server.start();
  }
  void freeze(Server& server) {
    count("freezes");
    server.process().signal(SIGSTOP);
    pause(500, 4000);
    server.process().signal(SIGCONT);
  }
  void cut(Server& server) {
    count("cuts");
    server.relay().cut(1 + static_cast<unsigned int>(pick(3)), pick(3) == 0);
  }
  void delay(Server& server) {
    count("delays");
    server.relay().delay(1 + pick(200));
    pause(0, 2000);
    server.relay().delay(0);
  }
  void damage(Server& server) {
    count("damaged messages", 20);
    for (int i = 0; i < 20; ++i) {
      std::string message("GIOP\1\0\1", 7);
      message += static_cast<char>(pick(9));
      for (int n = pick(200); n >= 0; --n) message += static_cast<char>(pick(256));
      if (pick(2) == 0) message[static_cast<std::size_t>(pick(12))] ^= static_cast<char>(pick(256));
      const RawConnection connection(server.port());
      connection.send(message);
      if (pick(2) == 0) connection.closed_by_peer(20ms);
    }
  }
  void hold_connections(Server& server) {
    count("idle connections", 2000);
    std::vector<std::unique_ptr<RawConnection>> idle;
    for (int i = 0; i < 2000; ++i) idle.push_back(std::make_unique<RawConnection>(server.port()));
    pause(0, 1000);
  }
  void read_nothing(Server& server) {
    count("slow readers", 20);
    std::string requests;
    for (int i = 0; i < 50000; ++i) requests += request("patch_object_name", {});
    std::vector<std::unique_ptr<RawConnection>> slow;
    for (int i = 0; i < 20; ++i) {
      slow.push_back(std::make_unique<RawConnection>(server.port()));
      slow.back()->send_what_fits(requests);
    }
    pause(0, 1000);
  }
  void fill_disk(Server&) {
    if (disk_.empty()) return;
    count("full disks");
    write_all(disk_ + "/filler", std::string(4U << 20, 'x'));
    pause(1000, 2500);
    std::filesystem::remove(disk_ + "/filler");
  }

  std::mt19937 random_;
  const std::string disk_;
};

struct Size {
  explicit Size(const Process& process)
      : threads(process.threads()),
        sockets(process.sockets()),
        megabytes(process.resident_kib() / 1024) {}
  int threads, sockets;
  long megabytes;
};

/// Everything at rest again: nothing is left behind, and the servers stop as they should.
void check_rest(const std::vector<Size>& at_first) {
  // A sub server keeps the connections its clients' calls needed, and the main server a thread for
  // each, until they have been idle for three minutes.
  constexpr int kept = 60;
  constexpr long grown_megabytes = 300;
  for (std::size_t i = 0; i < server_count; ++i) {
    Server& server = *servers[i];
    const Size& first = at_first[i];
    Size now(server.process());
    const auto settled = [&] {
      std::this_thread::sleep_for(200ms);
      now = Size(server.process());
      return now.threads <= first.threads + kept && now.sockets <= first.sockets + kept;
    };
    eventually(settled, 30s);  // the broker's idle threads end after ten seconds
    fmt::print("{}: threads {} then {}, sockets {} then {}, MB {} then {}\n", server.name(),
               first.threads, now.threads, first.sockets, now.sockets, first.megabytes,
               now.megabytes);
    if (now.threads > first.threads + kept) violated("{} kept threads", server.name());
    if (now.sockets > first.sockets + kept) violated("{} kept connections", server.name());
    if (now.megabytes > first.megabytes + grown_megabytes)
      violated("{} kept memory", server.name());
  }
  for (const auto& server : servers) {
    server->process().signal(SIGTERM);
    const auto status = server->process().wait(12s);
    if (status != 0) violated("{} ended with {}", server->name(), status.value_or(-1));
    const std::string log = server->process().err();
    if (log.find("Sanitizer") != std::string::npos) violated("{}: {}", server->name(), log);
  }
}

int run(unsigned int seed, int seconds, const std::string& waits) {
  fmt::print("seed {}, {} s\n", seed, seconds);
  const TemporaryFolder folder;
  const std::string disk = folder.path("main");
  std::filesystem::create_directory(disk);
  const bool small_disk = ::mount("none", disk.c_str(), "tmpfs", 0, "size=1m") == 0;
  if (!small_disk) fmt::print("no small disk can be mounted: the disk is never full\n");
  std::string directory;
  for (int i = 0; i < server_count; ++i) {
    auto& server = servers[static_cast<std::size_t>(i)];
    server = std::make_unique<Server>(folder, i, waits);
    directory +=
        directory_entry(server->name(), i == main_index ? "main" : "slave", server->corbaloc());
  }
  write_all(folder.path("servers.ini"), directory);
  for (const auto& server : servers) server->start();
  std::vector<Size> at_first;
  for (const auto& server : servers) at_first.emplace_back(server->process());

  {
    const orb::Broker broker({});
    std::array<Box_Record, 2> boxes;
    std::vector<std::thread> clients;
    for (int i = 0; i < 6; ++i) {
      const std::string port = fmt::format("port{}", i);
      // The owner at one server, the clients at all of them.
      clients.emplace_back([&, i, port] { own(broker, i % server_count, port); });
      for (int n = 0; n < 4; ++n) {
        clients.emplace_back([&, n, port] { ask(broker, n % server_count, port, n); });
      }
    }
    for (int i = 0; i < 2; ++i) {
      Box_Record& record = boxes[static_cast<std::size_t>(i)];
      const std::string box = fmt::format("box{}", i);
      for (int n = 0; n < 4; ++n) {
        clients.emplace_back([&, n, box] { produce(broker, box, n, record); });
      }
      clients.emplace_back([&, box] { consume(broker, box, record); });
    }
    // Ports that only a main server can create: owners at a sub server need them.
    auto make_ports = [&, way = Way(broker, main_index)]() mutable {
      for (int i = 0; i < 6; ++i) make_port(way, fmt::format("port{}", i), PORT_MASTER);
    };
    make_ports();
    Hand hand(seed, small_disk ? disk : "");
    const auto end = Steady::now() + std::chrono::seconds(seconds);
    while (Steady::now() < end) {
      hand.pause(300, 2500);
      hand.act();
      make_ports();
    }
    std::this_thread::sleep_for(aftermath + peace);
    stop = true;
    for (std::thread& client : clients) client.join();
  }
  check_rest(at_first);
  if (small_disk) ::umount(disk.c_str());
  for (const auto& [what, times] : counts) fmt::print("{:>10} {}\n", times, what);
  fmt::print(violations == 0 ? "everything held\n" : "{} violations, seed {}\n", violations.load(),
             seed);
  return violations == 0 ? 0 : 1;
}

}  // namespace
}  // namespace portsvc

int main(int argc, char** argv) {
  unsigned int seed = std::random_device{}();
  int seconds = 60;
  std::string waits = "early";
  CLI::App app("chaos, a small installation under fire");
  app.add_option("--seconds", seconds, "How long")->capture_default_str();
  app.add_option("--seed", seed, "The hand's random numbers (default: new ones)");
  app.add_option("--waits", waits, "How the servers wait: early or paused")->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  ::signal(SIGPIPE, SIG_IGN);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  return portsvc::run(seed, seconds, waits);
}
