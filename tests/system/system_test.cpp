#include "tests/system/system_test.h"

#include <cstdlib>

namespace portsvc {

SystemTest::SystemTest() : directory{"--directory", folder.path("servers.ini")} {
  for (const char* name : {"main", "sub1", "sub2"}) ports_[name] = free_port();
  point_main_at(corbaloc("main"));
}

void SystemTest::point_main_at(const std::string& reference) {
  std::string entries;
  for (const char* name : {"main", "sub1", "sub2"}) {
    const bool main = std::string(name) == "main";
    entries += directory_entry(name, main ? "main" : "slave", main ? reference : corbaloc(name));
  }
  write_all(directory[1], entries);
}

void SystemTest::use_tls(const orb::Tls& tls) {
  tls_ = tls;
  point_main_at(corbaloc("main"));
}

Words SystemTest::tls_words() const {
  return tls_.in_use() ? Words{"--tls-ca", tls_.authorities, "--tls-key", tls_.key} : Words();
}

void SystemTest::TearDown() {
  for (const auto& [name, server] : servers_) {
    EXPECT_TRUE(server->running()) << name << " ended by itself: " << server->err();
    expect_no_complaint(name);
  }
}

void SystemTest::expect_no_complaint(const std::string& name) {
  const std::string err = process(name).err();
  EXPECT_EQ(err.find("Sanitizer"), std::string::npos) << name << ": " << err;
  EXPECT_EQ(err.find("runtime error"), std::string::npos) << name << ": " << err;
}

Process& SystemTest::start(const std::string& name, const Words& options) {
  if (servers_.count(name) != 0) kill(name);
  const bool main = name == "main";
  Words command = server_words(main ? "main" : "sub", name, port(name), folder.path());
  if (tls_.in_use()) command[4].replace(0, 8, "giop:ssl");
  if (!main) command = command + Words{"--main", "main"};
  // How blocked calls wait makes no difference to any answer: CI runs the tests either way.
  const char* const waits = std::getenv("PORTSVC_WAITS");
  if (waits && std::find(options.begin(), options.end(), "--waits") == options.end()) {
    command = command + Words{"--waits", waits};
  }
  auto& server = servers_[name] = std::make_unique<Process>(
      Words{PORT_SERVER} + command + directory + tls_words() + options, files(name));
  EXPECT_TRUE(server->serves()) << name << " does not start: " << server->err();
  return *server;
}

void SystemTest::kill(const std::string& name) { EXPECT_EQ(stop(name, SIGKILL), 128 + SIGKILL); }

int SystemTest::stop(const std::string& name, int signal) {
  process(name).signal(signal);
  const int status = process(name).wait(10s).value_or(-1);
  expect_no_complaint(name);
  servers_.erase(name);
  return status;
}

std::unique_ptr<Process> SystemTest::in_background(const std::string& server,
                                                   const Words& arguments,
                                                   const std::string& input) {
  return std::make_unique<Process>(
      Words{PORTCTL, "--server", server} + tls_words() + directory + arguments, files("portctl"),
      input);
}

Outcome SystemTest::outcome(Process& process, std::chrono::milliseconds patience) {
  const int status = process.wait(patience).value_or(-1);
  return {status, process.out(), process.err()};
}

Outcome SystemTest::portctl(const std::string& server, const Words& arguments,
                            const std::string& input) {
  return outcome(*in_background(server, arguments, input));
}

std::string SystemTest::done(const std::string& server, const Words& arguments) {
  const Outcome ended = portctl(server, arguments);
  EXPECT_EQ(ended.status, 0) << fmt::format("{}: {}", fmt::join(arguments, " "), ended.err);
  return ended.out;
}

Outcome SystemTest::ran(const Words& command) {
  Process process(command, files("ran"));
  return outcome(process);
}

void SystemTest::expect_failure(const Outcome& ended, int status, const std::string& why) {
  EXPECT_EQ(ended.status, status) << why;
  EXPECT_EQ(ended.out, "") << why;
  EXPECT_THAT(ended.err, HasSubstr(why));
  EXPECT_EQ(std::count(ended.err.begin(), ended.err.end(), '\n'), 1) << ended.err;
}

void SystemTest::expect_exchange(const std::string& port, const std::string& owner_at,
                                 const std::string& client_at) {
  const Port_Factory_var owners = server(owner_at);
  const Port_Factory_var clients = server(client_at);
  std::thread owner([&] { answer_packets(owners, port, 1); });
  const unsigned int client = connected(clients, port, CONNECT_CLIENT);
  EXPECT_EQ(ask(clients, client, "hello", 10), Reply(result::ok, "re:hello"));
  EXPECT_EQ(clients->disconnect_port(client), result::ok);
  owner.join();
}

bool SystemTest::sub1_knows_main() {
  return eventually([&] {
    return portctl("sub1", {"master", "nobody"}).err.find("2001") != std::string::npos;
  });
}

int SystemTest::times_said(const std::string& server, const std::string& text) {
  const std::string log = process(server).err();
  int times = 0;
  for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++times;
  return times;
}

orb::Broker& SystemTest::broker() {
  if (!broker_) {
    allow_many_connections();
    ::signal(SIGPIPE, SIG_IGN);
    orb::Options options;
    options.tls = tls_;
    options.max_message = 256U << 20;  // more than any server takes
    broker_ = std::make_unique<orb::Broker>(options);
  }
  return *broker_;
}

Port_Factory_var SystemTest::server(const std::string& name) {
  for (;;) {
    try {
      return Varo::DT_PORT_SVC::Port_Factory::_narrow(broker().from_text(corbaloc(name)));
    } catch (const CORBA::COMM_FAILURE&) {
      // A connection to a server that has been killed since: the next call takes another.
    }
  }
}

std::string SystemTest::corbaloc(const std::string& name) const {
  return fmt::format("corbaloc:{}:127.0.0.1:{}/{}", tls_.in_use() ? "ssliop" : "iiop", port(name),
                     object_key);
}

Reply ask(Port_Factory_ptr server, unsigned int handle, const std::string& data,
          unsigned int timeout) {
  const unsigned int code = send(server, handle, data, timeout);
  return code == result::ok ? reply(server, handle, timeout) : Reply(code, "");
}

void answer_packets(Port_Factory_ptr server, const std::string& port, int count) {
  const unsigned int id = connected(server, port, CONNECT_OWNER);
  for (int i = 0; i < count; ++i) {
    const auto [code, source, data] = receive(server, id, 10);
    ASSERT_EQ(code, result::ok) << port;
    EXPECT_EQ(server->packet_replay(source, wire("re:" + data), 0), result::ok);
  }
  EXPECT_EQ(server->disconnect_port(id), result::ok);
}

}  // namespace portsvc
