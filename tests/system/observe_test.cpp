// What a server tells those who run it: metrics, health, log, the feed of its boxes, and what a
// service manager hears.
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <set>
#include <sstream>

#include "tests/system/system_test.h"

namespace portsvc {
namespace {

class Observed : public SystemTest {
 protected:
  /// Options that serve the metrics of a server.
  Words metrics(const std::string& server) { return {"--metrics", address(server)}; }
  std::string address(const std::string& server) {
    if (ports_.count(server) == 0) ports_[server] = free_port();
    return fmt::format("127.0.0.1:{}", ports_[server]);
  }
  /// The head and the body of an answer.
  std::string get(const std::string& server, const std::string& path, const Words& options = {}) {
    const Words command{"curl", "-s", "-i", "--max-time", "10", "http://" + address(server) + path};
    const Outcome ended = ran(command + options);
    EXPECT_EQ(ended.status, 0) << path;
    return ended.out;
  }
  json board(const std::string& server, const std::string& query = "") {
    const std::string answer = get(server, "/board.json" + query);
    return json::parse(answer.substr(answer.find("\r\n\r\n")));
  }

 private:
  std::map<std::string, int> ports_;
};

TEST_F(Observed, WhatPassesThroughAServerShowsInItsMetrics) {
  const Port_Factory_var main = serving(
      "main", metrics("main") + Words{"--metrics-of", "sub1=127.0.0.1:1", "--snapshot-every", "60",
                                      "--feed", "box=sleep 1000", "--max-ports", "4"});
  start("sub1", metrics("sub1"));
  const std::string hostile = "<b>\"x\\\n\xff";
  create(main, {"box"}, PORT_EVENTBOX, 3);
  create(main, {hostile}, PORT_EVENTBOX, 1);
  create(main, {"p", "last"});
  EXPECT_THROW(main->create_port("above", PORT_MASTER, 1), CORBA::IMP_LIMIT);
  EXPECT_EQ(main->make_snapshot(), result::ok);
  EXPECT_EQ(main->add_event("box", 7), result::ok);
  EXPECT_EQ(main->declare_event_n(7, wires(Texts(10)), 0), result::ok);
  EXPECT_EQ(main->send_event("box", wire("event")), result::ok);
  const unsigned int box = connected(main, "box", CONNECT_OWNER);
  EXPECT_EQ(std::get<0>(receive(main, box, 1)), result::ok);
  expect_exchange("p", "main", "main");
  std::thread waits([&] {
    EXPECT_EQ(send(main, connected(main, "p", CONNECT_CLIENT), "waits", 20), result::ok);
  });
  EXPECT_TRUE(
      eventually([&] { return board("main", "?search=p")["ports"][0]["senders_waiting"] == 1; }));

  const std::string text = get("main", "/metrics");
  for (const char* line : {
           R"(portsvc_box_events{box="box"} 2)",
           R"(portsvc_box_events_put_total{box="box"} 11)",
           R"(portsvc_box_events_taken_total{box="box"} 1)",
           R"(portsvc_box_events_dropped_total{box="box"} 8)",
           R"(portsvc_port_put_total{port="p",of="packets"} 1)",
           R"(portsvc_port_taken_total{port="p",of="replies"} 1)",
           R"(portsvc_port_senders_waiting{port="p"} 1)",
           R"(portsvc_port_owner_connected{port="box"} 1)",
           R"(portsvc_port_clients{port="p"} 1)",
           R"(portsvc_box_limit{box="<b>\"x\\\\\\x0a\\xff"} 1)",
           R"(portsvc_call_duration_seconds_count{operation="packet_receive"} 2)",
           R"(portsvc_in_use{of="blocked_calls"} 1)",
           R"(portsvc_refused_total{of="ports"} 1)",
           R"(portsvc_snapshots_written_total 1)",
           R"(portsvc_sub_servers 2)",
           R"(portsvc_feed_running{box="box"} 1)",
       }) {
    EXPECT_THAT(text, HasSubstr(std::string(line) + "\n"));
  }

  // Dashboard and alerts name nothing that no server tells.
  const std::string told = text + get("sub1", "/metrics");
  const std::string ops = read_all(OPS "/grafana/port_service.json") +
                          read_all(OPS "/prometheus/port_service.rules.yml");
  const std::regex name("(portsvc|process)_[a-z_]+");
  std::set<std::string> names;
  for (std::sregex_iterator found(ops.begin(), ops.end(), name), end; found != end; ++found) {
    names.insert(found->str());
  }
  EXPECT_GT(names.size(), 20U);
  for (const std::string& used : names) {
    if (used == "portsvc_build_info") continue;
    EXPECT_TRUE(std::regex_search(told, std::regex("\n" + used + "[{ ]"))) << used;
  }

  const json rows = board("main", "?sort=queued&limit=1");
  EXPECT_EQ(rows["ports"][0]["name"], "box");
  EXPECT_EQ(rows["ports_found"], 4);
  EXPECT_EQ(board("main")["servers"][1]["board"], "127.0.0.1:1");
  const std::string top = done("main", {"top", "--metrics", address("main"), "--count", "1"});
  EXPECT_THAT(top, HasSubstr("\nbox   "));
  EXPECT_THAT(done("main", {"top", "--count", "1"}), HasSubstr("2/3"));
  EXPECT_EQ(portctl("main", {"top", "--metrics", "127.0.0.1:1"}).status, 3);

  // Only what asks this address by an address gets an answer, and only to a question.
  for (const char* elsewhere : {"Host: elsewhere.example", "Host: 127.elsewhere.example"}) {
    EXPECT_EQ(get("main", "/metrics", {"-H", elsewhere}).find("HTTP/1.1 421"), 0U) << elsewhere;
  }
  EXPECT_EQ(get("main", "/metrics", {"-X", "POST", "-d", "x"}).find("HTTP/1.1 405"), 0U);
  EXPECT_EQ(get("main", "/../etc/passwd", {"--path-as-is"}).find("HTTP/1.1 40"), 0U);
  EXPECT_THAT(get("main", "/"),
              HasSubstr("Content-Security-Policy: default-src 'none'; script-src 'nonce-"));
  EXPECT_EQ(std::get<0>(receive(main, info_of(main, "p").port_id, 5)), result::ok);
  waits.join();
}

TEST_F(Observed, ASubServerIsReadyWhileItReachesItsMainServer) {
  start("main");
  start("sub1", metrics("sub1"));
  const auto ready = [&](const char* status) {
    return eventually([&] { return get("sub1", "/readyz").find(status) == 9; });
  };
  EXPECT_TRUE(ready("200"));
  kill("main");
  EXPECT_TRUE(ready("503"));
  EXPECT_THAT(get("sub1", "/readyz"), HasSubstr("main server main not reached for "));
  EXPECT_EQ(get("sub1", "/healthz").find("HTTP/1.1 200"), 0U);
  EXPECT_THAT(get("sub1", "/metrics"), HasSubstr("portsvc_peer_up{peer=\"main\"} 0\n"));
  start("main");
  EXPECT_TRUE(ready("200"));
  EXPECT_EQ(times_said("sub1", "peer: main server main lost"), 1);
  EXPECT_EQ(times_said("sub1", "peer: main server main found"), 2);
  EXPECT_THAT(ended_server({"main", "--name", "x", "--endpoint", "giop:tcp:127.0.0.1:0",
                            "--metrics", address("sub1")})
                  .err,
              HasSubstr("cannot listen on " + address("sub1")));
}

TEST_F(Observed, AFeedReachesTheBoxAndEverySubServerUnlessCopiesAreOff) {
  const std::string in = folder.path("in");
  write_all(in, "one\ntwo\n");
  const std::string pid_file = folder.path("pid");
  const auto gone = [&] {
    const std::string pid = read_all(pid_file);
    return pid.empty() || ::kill(std::stoi(pid), 0) != 0;
  };
  start("main", {"--feed", fmt::format("alarms=echo $$ >{}; exec tail -n +1 -f {}", pid_file, in)});
  start("sub1");
  start("sub2");  // one that is away costs the others the copies queued behind its own
  EXPECT_TRUE(sub1_knows_main());
  EXPECT_TRUE(eventually([&] {
    return times_said("main", "feed: alarms: there is no such box; the command waits") == 1;
  }));
  done("main", {"create", "alarms", "--kind", "box"});
  const auto count = [&](const std::string& at) {
    return portctl(at, {"event", "count", "alarms"}).out;
  };
  EXPECT_TRUE(eventually([&] { return count("main") == "2\n" && count("sub1") == "2\n"; }));
  done("main", {"event", "copy", "alarms", "off"});
  const auto add = [&](const std::string& line) {
    std::ofstream(in, std::ios::app) << line << "\n";
  };
  add("three");
  EXPECT_TRUE(eventually([&] { return count("main") == "3\n"; }));
  done("main", {"event", "copy", "alarms", "on"});
  add("four");
  EXPECT_TRUE(eventually([&] { return count("sub1") == "3\n"; }));
  EXPECT_EQ(done("sub1", {"event", "watch", "alarms", "--count", "3"}), "one\ntwo\nfour\n");

  // The command is started again, and goes with the server.
  ASSERT_EQ(::kill(std::stoi(read_all(pid_file)), SIGTERM), 0);
  EXPECT_TRUE(eventually([&] { return count("main") == "8\n"; })) << "read from its start";
  EXPECT_EQ(times_said("main", "feed: alarms: the command has ended, signal 15"), 1);
  EXPECT_FALSE(gone());
  EXPECT_EQ(stop("main", SIGTERM), 0);
  EXPECT_TRUE(gone());
  start("main", {"--feed", fmt::format("alarms=echo $$ >{}; exec sleep 1000", pid_file)});
  EXPECT_TRUE(eventually([&] { return !gone(); }));
  kill("main");
  EXPECT_TRUE(eventually(gone));
}

TEST_F(Observed, TheLogIsOpenedAnewOnSighup) {
  const std::string log = folder.path("log");
  start("main", {"--log-file", log, "--log-format", "json"});
  std::filesystem::rename(log, log + ".moved");
  process("main").signal(SIGHUP);
  EXPECT_TRUE(eventually([&] {
    return std::filesystem::exists(log) &&
           read_all(log).find("reloaded: log, directory, certificates") != std::string::npos;
  }));
  EXPECT_EQ(stop("main", SIGTERM), 0);
  std::istringstream lines(read_all(log + ".moved") + read_all(log));
  std::set<std::string> subjects;
  for (std::string line; std::getline(lines, line);) {
    const json object = json::parse(line);
    EXPECT_EQ(object["level"], "info") << line;
    subjects.insert(object["subject"]);
  }
  EXPECT_EQ(subjects, (std::set<std::string>{"server"}));
  EXPECT_THAT(read_all(log), HasSubstr("stops: signal 15"));
}

class ServiceManager : public SystemTest {
 protected:
  ServiceManager() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    folder.path("notify").copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::setenv("NOTIFY_SOCKET", address.sun_path, 1);
    ::setenv("WATCHDOG_USEC", "1000000", 1);
  }
  ~ServiceManager() override {
    ::unsetenv("NOTIFY_SOCKET");
    ::unsetenv("WATCHDOG_USEC");
    ::close(socket_);
  }

  /// The next message, empty when none comes within `patience`.
  std::string heard(std::chrono::milliseconds patience) const {
    const timeval time{patience.count() / 1000, patience.count() % 1000 * 1000};
    ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
    std::string message(4096, '\0');
    const ssize_t size = ::recv(socket_, message.data(), message.size(), 0);
    message.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return message;
  }
  bool hears(const std::string& text) const {
    return eventually([&] { return heard(1s).find(text) != std::string::npos; });
  }

 private:
  const int socket_;
};

/// Holds a process's threads still, all but those of a name.
class HeldThreads {
 public:
  HeldThreads(pid_t process, const std::string& but) {
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
      std::string name;
      std::getline(std::ifstream(entry.path() / "comm"), name);
      if (name == but) continue;
      const pid_t thread = std::stoi(entry.path().filename());
      EXPECT_EQ(::ptrace(PTRACE_SEIZE, thread, nullptr, nullptr), 0);
      EXPECT_EQ(::ptrace(PTRACE_INTERRUPT, thread, nullptr, nullptr), 0);
      EXPECT_EQ(::waitpid(thread, nullptr, __WALL), thread);
      threads_.push_back(thread);
    }
  }
  ~HeldThreads() {
    for (const pid_t thread : threads_) ::ptrace(PTRACE_DETACH, thread, nullptr, nullptr);
  }
  HeldThreads(const HeldThreads&) = delete;
  HeldThreads& operator=(const HeldThreads&) = delete;

 private:
  std::vector<pid_t> threads_;
};

TEST_F(ServiceManager, HearsThatAServerIsReadyAliveAsLongAsItAnswersAndStopping) {
  start("main");
  EXPECT_TRUE(hears("READY=1\nSTATUS=main main serving at corbaloc:"));
  EXPECT_TRUE(hears("WATCHDOG=1"));
  {
    const HeldThreads held(process("main").pid(), "heartbeat");
    EXPECT_TRUE(hears("STATUS=does not answer"));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(heard(1s).find("WATCHDOG"), std::string::npos);
  }
  EXPECT_TRUE(hears("STATUS=main main serving"));
  EXPECT_TRUE(hears("WATCHDOG=1"));
  EXPECT_EQ(stop("main", SIGTERM), 0);
  EXPECT_TRUE(hears("STOPPING=1"));
}

}  // namespace
}  // namespace portsvc
