// The broker folder and the stand-ins for the sibling libraries. Peers are real processes: this
// program starts itself again with --peer.
#include <ace/Reactor.h>
#include <ace/Select_Reactor.h>
#include <ace/Task.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <thread>

#include "idl/port_codes.h"
#include "middleware/connect_manager.h"
#include "middleware/data_sender.h"
#include "middleware/directory.h"
#include "middleware/file_handle.h"
#include "middleware/interface_name.h"
#include "middleware/orb/orb.h"
#include "middleware/reference_container.h"
#include "middleware/server_list.h"
#include "platform/clock.h"
#include "tests/empty_servant.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Varo::DT_PORT_SVC::Port_Factory;
using Varo::DT_PORT_SVC::Port_Factory_var;

namespace portsvc {
namespace {

using Clock_ = std::chrono::steady_clock;

std::chrono::milliseconds since(Clock_::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock_::now() - start);
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds patience = 10s) {
  for (const auto start = Clock_::now(); since(start) < patience;) {
    if (condition()) return true;
    std::this_thread::sleep_for(5ms);
  }
  return condition();
}

class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = fs::temp_directory_path() / "middleware_test.XXXXXX";
    path_ = ::mkdtemp(pattern.data());
  }
  ~TemporaryFolder() { fs::remove_all(path_); }
  std::string file(const std::string& name) const { return path_ / name; }
  std::string write(const std::string& name, const std::string& text) const {
    std::ofstream(file(name)) << text;
    return file(name);
  }

 private:
  fs::path path_;
};

/// A TCP socket on loopback that listens and never says a word.
class SilentListener {
 public:
  SilentListener() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(::bind(socket_, generic, size), 0);
    EXPECT_EQ(::listen(socket_, 16), 0);
    EXPECT_EQ(::getsockname(socket_, generic, &size), 0);
    port_ = ntohs(address.sin_port);
  }
  ~SilentListener() { ::close(socket_); }
  int port() const { return port_; }

 private:
  int socket_;
  int port_ = 0;
};

int free_port() { return SilentListener().port(); }

std::string corbaloc(int port) {
  return "corbaloc:iiop:127.0.0.1:" + std::to_string(port) + "/" + object_key;
}

/// packet_receive blocks for its time-out, and says so in a reply of one byte.
class PeerServant : public EmptyServant {
 public:
  CORBA::ULong packet_receive(CORBA::ULong, CORBA::ULong& source, Varo::DATA_BUFFER_out data,
                              CORBA::ULong timeout) override {
    std::this_thread::sleep_for(std::chrono::seconds(timeout));
    source = timeout;
    data = new Data;
    data->length(1);
    return 0;
  }
};

/// A server in a process of its own.
class Peer {
 public:
  explicit Peer(int port = free_port(), const std::map<std::string, std::string>& environment = {})
      : port_(port), environment_(environment) {
    start();
  }
  ~Peer() { kill(); }

  void start() {
    int ready[2];
    ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(ready[1], STDOUT_FILENO);
      for (const auto& [name, value] : environment_) ::setenv(name.c_str(), value.c_str(), 1);
      ::execl("/proc/self/exe", "peer", "--peer", std::to_string(port_).c_str(), nullptr);
      ::_exit(127);
    }
    ::close(ready[1]);
    char byte = 0;
    EXPECT_EQ(::read(ready[0], &byte, 1), 1) << "the peer did not start";
    ::close(ready[0]);
  }
  void signal(int number) const { ::kill(pid_, number); }
  void kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = 0;
  }
  void restart() {
    kill();
    start();
  }
  std::string reference() const { return corbaloc(port_); }

  static int run(int port) {
    orb::Broker broker({"giop:tcp:127.0.0.1:" + std::to_string(port)});
    const PortableServer::ServantBase_var owner(new PeerServant);
    broker.serve(dynamic_cast<PeerServant*>(owner.in()));
    if (::write(STDOUT_FILENO, "!", 1) != 1) return 1;
    for (;;) ::pause();
  }

 private:
  int port_;
  std::map<std::string, std::string> environment_;
  pid_t pid_ = 0;
};

/// A directory in memory that counts what it is asked.
class FakeDirectory : public Directory {
 public:
  CORBA::Object_var resolve(const std::string& server, const std::string& realm) override {
    ++resolved;
    const auto found = references.find({server, realm});
    return found == references.end() ? CORBA::Object_var() : found->second;
  }
  std::vector<std::string> servers(const std::string& role, const std::string&) override {
    return role == role_sub ? subs : std::vector<std::string>();
  }
  void bind(const std::string&, const std::string&, const std::string&,
            CORBA::Object_ptr) override {}
  void unbind(const std::string&, const std::string&, const std::string&,
              CORBA::Object_ptr) override {}

  std::map<std::pair<std::string, std::string>, CORBA::Object_var> references;
  std::vector<std::string> subs;
  std::atomic<int> resolved{0};
};

/// A broker for one test, and a call time-out that does not try anybody's patience.
class WithBroker : public ::testing::Test {
 protected:
  WithBroker() : usual_timeout_(orb::peer_call_timeout()) {
    orb::set_peer_call_timeout(500ms);
    use_directory(directory, "");
  }
  ~WithBroker() override {
    use_directory(nullptr, "");
    directory->references.clear();
    orb::set_peer_call_timeout(usual_timeout_);
  }

  Port_Factory_var lookup(const char* server, const char* realm = nullptr) {
    return vrReferenceContainer::instance()->GetPortReferenceWithServerName(server, realm);
  }

  orb::Broker broker{{"giop:tcp:127.0.0.1:0"}};
  std::shared_ptr<FakeDirectory> directory = std::make_shared<FakeDirectory>();

 private:
  std::chrono::milliseconds usual_timeout_;
};

std::string why_broker_fails(const std::string& endpoint) {
  try {
    orb::Broker broker({endpoint});
  } catch (const orb::Error& e) {
    return e.what();
  }
  return "it starts";
}

TEST(Endpoint, IsRefusedInOneClearLine) {
  const SilentListener taken;
  const std::string in_use = "giop:tcp:127.0.0.1:" + std::to_string(taken.port());
  EXPECT_EQ(why_broker_fails(in_use),
            "cannot listen on " + in_use + ": the address is in use or not local");
  EXPECT_EQ(why_broker_fails("giop:tcp:192.0.2.1:0"),
            "cannot listen on giop:tcp:192.0.2.1:0: the address is in use or not local");
  EXPECT_EQ(why_broker_fails("giop:tcp:no-such-host.invalid:0"),
            "cannot listen on giop:tcp:no-such-host.invalid:0: "
            "the host 'no-such-host.invalid' is unknown");
  for (const char* malformed : {"nonsense", "giop:tcp:", "giop:tcp:127.0.0.1", "giop:tcp:h:65536",
                                "giop:tcp:h:-1", "giop:tcp:h:9x", "giop:tcp:::1:0"}) {
    EXPECT_EQ(why_broker_fails(malformed), "the endpoint '" + std::string(malformed) +
                                               "' is malformed, wanted: giop:tcp:HOST:PORT");
  }
  // A failed start leaves nothing behind: the next one succeeds.
  EXPECT_EQ(why_broker_fails("giop:tcp:127.0.0.1:0"), "it starts");
  EXPECT_EQ(why_broker_fails(""), "it starts");
}

TEST_F(WithBroker, ServesUnderTheWellKnownKeyAndStopsOnlyWhenCallsHaveEnded) {
  const PortableServer::ServantBase_var owner(new PeerServant);
  const Port_Factory_var reference = broker.serve(dynamic_cast<PeerServant*>(owner.in()));
  EXPECT_EQ(broker.to_text(reference).rfind("IOR:", 0), 0u);
  EXPECT_EQ(reference->exist("p"), 0);
  EXPECT_TRUE(broker.from_text(broker.corbaloc(reference))->_is_equivalent(reference));
  // The reference has the key of the corbaloc, so it survives a restart.
  const CORBA::Object_var again = broker.from_text(broker.to_text(reference));
  EXPECT_TRUE(reference->_is_equivalent(again));

  std::thread caller([&] {
    CORBA::ULong source = 0;
    Varo::DATA_BUFFER_var data;
    reference->packet_receive(0, source, data, 2);
  });
  std::this_thread::sleep_for(200ms);
  const auto start = Clock_::now();
  EXPECT_FALSE(broker.shutdown(300ms));
  EXPECT_LT(since(start), 1s);
  EXPECT_TRUE(broker.shutdown(10s));
  caller.join();
}

TEST_F(WithBroker, TextsThatAreNoReferenceAreRefused) {
  for (const char* text : {"", "nonsense", "IOR:00", "corbaloc:", "corbaloc:iiop:host:port/x",
                           "IOR:000000000000000100000000000000"}) {
    EXPECT_THROW(broker.from_text(text), orb::Error) << text;
  }
}

TEST_F(WithBroker, CallsGiveUpWhenTheTimeoutOfTheInnermostScopeHasPassed) {
  const SilentListener silent;
  const CORBA::Object_var object = broker.from_text(corbaloc(silent.port()));
  const Port_Factory_var peer = Port_Factory::_unchecked_narrow(object);
  const auto call_takes = [&] {
    const auto start = Clock_::now();
    EXPECT_THROW(peer->heart_bit(), CORBA::SystemException);
    return since(start);
  };
  // The broker did not start this thread.
  std::thread([&] {
    const orb::CallTimeout outer(700ms);
    {
      const orb::CallTimeout inner(150ms);
      const auto took = call_takes();
      EXPECT_GE(took, 100ms);
      EXPECT_LT(took, 500ms);
    }
    const auto took = call_takes();
    EXPECT_GE(took, 600ms);
    EXPECT_LT(took, 2s);
  }).join();
}

TEST_F(WithBroker, ConnectionsToAPeerAreCountedApart) {
  Peer peer;
  const Peer other;
  const CORBA::Object_var by_address = broker.from_text(peer.reference());
  const CORBA::Object_var elsewhere = broker.from_text(other.reference());
  std::string named = peer.reference();
  named.replace(named.find("127.0.0.1"), 9, "localhost");
  const CORBA::Object_var by_name = broker.from_text(named);
  const auto call = [](const CORBA::Object_var& object) {
    const orb::CallTimeout limit(2s);
    Port_Factory_var(Port_Factory::_unchecked_narrow(object))->heart_bit();
  };

  call(by_address);
  const auto first = orb::connections_opened(by_address);
  const auto first_by_name = orb::connections_opened(by_name);
  EXPECT_GE(first, 1u);
  call(by_address);
  call(elsewhere);
  EXPECT_EQ(orb::connections_opened(by_address), first) << "the connection is kept";

  peer.restart();
  EXPECT_THROW(call(by_address), CORBA::COMM_FAILURE) << "nothing is sent twice";
  call(by_address);
  EXPECT_GT(orb::connections_opened(by_address), first);
  EXPECT_GT(orb::connections_opened(by_name), first_by_name);
}

TEST_F(WithBroker, AWaitOutlivesTheScanForIdleConnections) {
  // The peer closes connections that were idle for two seconds.
  const Peer peer(free_port(), {{"ORBscanGranularity", "1"}, {"ORBinConScanPeriod", "2"}});
  const CORBA::Object_var object = broker.from_text(peer.reference());
  const Port_Factory_var reference = Port_Factory::_unchecked_narrow(object);
  const auto receive = [&](CORBA::ULong seconds) {
    CORBA::ULong source = 0;
    Varo::DATA_BUFFER_var data;
    EXPECT_EQ(reference->packet_receive(1, source, data, seconds), 0u);
    EXPECT_EQ(source, seconds);
    EXPECT_EQ(data->length(), 1u);
  };
  const auto before = orb::connections_opened(object);
  receive(4);
  EXPECT_EQ(orb::connections_opened(object), before + 1) << "the wait itself was cut";
  std::this_thread::sleep_for(3500ms);
  receive(0);
  EXPECT_EQ(orb::connections_opened(object), before + 2) << "the idle connection was not closed";
}

TEST(InterfaceName, IsSplitAtTheLastSeparator) {
  const auto split = [](const char* name) {
    ACE_String_Base<char> first("old"), second("old");
    VARO_UTIL_API::parse_interface(name, first, second);
    return std::string(first.c_str()) + "|" + second.c_str();
  };
  EXPECT_EQ(split("plant/line/press"), "plant/line|press");
  EXPECT_EQ(split("press"), "|press");
  EXPECT_EQ(split("plant/"), "plant|");
  EXPECT_EQ(split("/press"), "|press");
  EXPECT_EQ(split(""), "|");
  EXPECT_EQ(split(nullptr), "|");
}

class FileDirectoryTest : public WithBroker {
 protected:
  static std::string entry(const std::string& name, const std::string& role, int port) {
    return "[" + name + "]\nrole = " + role + "\nreference = " + corbaloc(port) + "\n";
  }
  std::string why_refused(const std::string& text) {
    const std::string path = folder.write("d.ini", text);
    try {
      open_file_directory(broker, path);
    } catch (const orb::Error& e) {
      std::string reason = e.what();
      EXPECT_EQ(reason.rfind("directory " + path + ": ", 0), 0u) << reason;
      EXPECT_EQ(reason.find('\n'), std::string::npos);
      return reason.substr(path.size() + 12);
    }
    return "accepted";
  }
  TemporaryFolder folder;
};

TEST_F(FileDirectoryTest, ListsServersByRoleAndRealmInTheOrderOfTheFile) {
  const auto found = open_file_directory(
      broker,
      folder.write("d.ini", "; the plant\n" + entry("m", "main", 1) + entry("z", "slave", 2) +
                                "realm = north\n" + entry("a.b/c", "slave", 3)));
  using Names = std::vector<std::string>;
  EXPECT_EQ(found->servers("slave", ""), (Names{"z", "a.b/c"}));
  EXPECT_EQ(found->servers("slave", "south"), (Names{"a.b/c"}));
  EXPECT_EQ(found->servers("main", "north"), (Names{"m"}));
  EXPECT_EQ(found->servers("other", ""), Names{});
  EXPECT_FALSE(CORBA::is_nil(found->resolve("z", "north")));
  EXPECT_FALSE(CORBA::is_nil(found->resolve("z", "")));
  EXPECT_TRUE(CORBA::is_nil(found->resolve("z", "south")));
  EXPECT_TRUE(CORBA::is_nil(found->resolve("nobody", "")));
}

TEST_F(FileDirectoryTest, BadFilesAreRefusedWithTheReason) {
  EXPECT_EQ(why_refused(entry("m", "main", 1)), "accepted");
  EXPECT_EQ(why_refused(""), "accepted");
  EXPECT_EQ(why_refused(entry("m", "main", 1) + entry("m", "slave", 2)),
            "line 4: duplicate section name");
  EXPECT_EQ(why_refused("[m\nrole = main\n"), "line 1: unmatched '['");
  EXPECT_EQ(why_refused("no sense\n"), "line 1: '=' character not found in line");
  EXPECT_EQ(why_refused("[m]\nrole = king\nreference = " + corbaloc(1)),
            "server 'm': role is 'king', wanted: main or slave");
  EXPECT_EQ(why_refused("[m]\nrole = main\n"), "server 'm': no reference");
  EXPECT_EQ(why_refused("[m]\nrole = main\nrefrence = x\n"), "server 'm': unknown key 'refrence'");
  EXPECT_EQ(why_refused("[m]\nrole = main\nreference = host:1\n"),
            "server 'm': the reference 'host:1' is neither a corbaloc nor an IOR");
  EXPECT_NE(why_refused("[m]\nrole = main\nreference = IOR:zz\n").find("is no reference"),
            std::string::npos);
  EXPECT_NE(why_refused("role = main\n").find("outside of any section"), std::string::npos);
  EXPECT_THROW(open_file_directory(broker, folder.file("missing.ini")), orb::Error);
}

TEST_F(FileDirectoryTest, FollowsTheFileButNotIntoADamagedState) {
  const std::string path = folder.write("d.ini", entry("m", "main", 1));
  const auto found = open_file_directory(broker, path);
  folder.write("d.ini", entry("m", "main", 1) + entry("s", "slave", 2));
  EXPECT_FALSE(CORBA::is_nil(found->resolve("s", "")));
  folder.write("d.ini", "[m");
  EXPECT_FALSE(CORBA::is_nil(found->resolve("s", "")));
  fs::remove(path);
  EXPECT_FALSE(CORBA::is_nil(found->resolve("m", "")));
  folder.write("d.ini", entry("s", "slave", 2));
  EXPECT_TRUE(CORBA::is_nil(found->resolve("m", "")));
}

/// omniNames in a process and a folder of its own.
class NamingService {
 public:
  NamingService() {
    pid_ = ::fork();
    if (pid_ == 0) {
      const int null = ::open("/dev/null", O_WRONLY);
      ::dup2(null, STDOUT_FILENO);
      ::dup2(null, STDERR_FILENO);
      const std::string endpoint = "giop:tcp:127.0.0.1:" + std::to_string(port_);
      ::execlp("omniNames", "omniNames", "-start", std::to_string(port_).c_str(), "-logdir",
               folder_.file("").c_str(), "-ORBendPoint", endpoint.c_str(), nullptr);
      ::_exit(127);
    }
  }
  ~NamingService() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  std::string reference() const {
    return "corbaloc:iiop:127.0.0.1:" + std::to_string(port_) + "/NameService";
  }

 private:
  TemporaryFolder folder_;
  int port_ = free_port();
  pid_t pid_ = 0;
};

TEST_F(WithBroker, NamingServiceKnowsServersByRealmAndRole) {
  const NamingService service;
  const auto found = open_naming_directory(broker, service.reference());
  const CORBA::Object_var one = broker.from_text(corbaloc(1));
  const CORBA::Object_var two = broker.from_text(corbaloc(2));
  ASSERT_TRUE(eventually([&] {
    try {
      found->bind("main/1.a", "", role_main, one);
      return true;
    } catch (const orb::Error&) {
      return false;
    }
  }));
  found->bind("b", "north", role_sub, two);
  for (int i = 0; i < 1500; ++i) {
    found->bind("a" + std::to_string(10000 + i), "", role_sub, one);
  }
  const auto resolves_to = [&](const char* name, const char* realm, const CORBA::Object_var& to) {
    const CORBA::Object_var object = found->resolve(name, realm);
    return !CORBA::is_nil(object) && object->_is_equivalent(to);
  };
  EXPECT_TRUE(resolves_to("main/1.a", "", one));
  EXPECT_TRUE(resolves_to("main/1.a", "south", one));
  EXPECT_TRUE(resolves_to("b", "north", two));
  EXPECT_TRUE(resolves_to("b", "", two));
  EXPECT_TRUE(CORBA::is_nil(found->resolve("b", "south")));
  EXPECT_TRUE(CORBA::is_nil(found->resolve("nobody", "")));

  const auto subs = found->servers(role_sub, "");
  ASSERT_EQ(subs.size(), 1501u);
  EXPECT_EQ(subs.front(), "a10000");
  EXPECT_EQ(subs.back(), "b");
  EXPECT_EQ(found->servers(role_sub, "south").size(), 1500u);

  // Started again elsewhere: the new entry replaces the old one, whose owner leaves it alone.
  found->bind("b", "north", role_sub, one);
  EXPECT_TRUE(resolves_to("b", "north", one));
  found->unbind("b", "north", role_sub, two);
  EXPECT_TRUE(resolves_to("b", "north", one));
  found->unbind("b", "north", role_sub, one);
  EXPECT_TRUE(CORBA::is_nil(found->resolve("b", "north")));
}

TEST_F(WithBroker, ANamingServiceThatIsAbsentOrSilentCostsOneTimeout) {
  const SilentListener silent;
  for (const int port : {free_port(), silent.port()}) {
    const auto found = open_naming_directory(
        broker, "corbaloc:iiop:127.0.0.1:" + std::to_string(port) + "/NameService");
    const CORBA::Object_var self = broker.from_text(corbaloc(1));
    const auto start = Clock_::now();
    EXPECT_TRUE(CORBA::is_nil(found->resolve("m", "")));
    EXPECT_TRUE(found->servers(role_sub, "").empty());
    EXPECT_THROW(found->bind("m", "", role_main, self), orb::Error);
    found->unbind("m", "", role_main, self);
    EXPECT_LT(since(start), 4 * 500ms + 1s);
  }
}

TEST_F(WithBroker, ReferencesAreKeptUntilReleased) {
  const Peer peer;
  directory->references[{"m", "r"}] = broker.from_text(peer.reference());
  EXPECT_TRUE(CORBA::is_nil(lookup("m"))) << "another realm";
  EXPECT_TRUE(CORBA::is_nil(lookup("x", "r")));
  directory->resolved = 0;
  const Port_Factory_var first = lookup("m", "r");
  ASSERT_FALSE(CORBA::is_nil(first));
  EXPECT_FALSE(CORBA::is_nil(lookup("m", "r")));
  EXPECT_EQ(directory->resolved, 1);
  vrReferenceContainer::instance()->ReleasePortReference("m", "r");
  vrReferenceContainer::instance()->ReleasePortReference("unknown", nullptr);
  first->heart_bit();  // the caller's reference is its own
  EXPECT_FALSE(CORBA::is_nil(lookup("m", "r")));
  EXPECT_EQ(directory->resolved, 2);
}

TEST_F(WithBroker, OnlyAPortServiceThatAnswersIsFound) {
  const Peer peer;
  const SilentListener silent;
  const auto handle_of_file = [&] {
    PortableServer::Servant_var<FileHandleImpl> handle(new FileHandleImpl("/proc/self/exe"));
    EXPECT_TRUE(handle->open());
    return CORBA::Object_var(handle->_this());
  };
  const PortableServer::ServantBase_var owner(new PeerServant);
  broker.serve(dynamic_cast<PeerServant*>(owner.in()));
  directory->references[{"file", ""}] = handle_of_file();
  directory->references[{"gone", ""}] = broker.from_text(corbaloc(free_port()));
  directory->references[{"silent", ""}] = broker.from_text(corbaloc(silent.port()));
  std::string other_key = peer.reference();
  other_key.replace(other_key.rfind('/'), std::string::npos, "/Nothing");
  directory->references[{"other", ""}] = broker.from_text(other_key);
  for (const char* name : {"file", "gone", "silent", "other"}) {
    const auto start = Clock_::now();
    EXPECT_TRUE(CORBA::is_nil(lookup(name))) << name;
    EXPECT_LT(since(start), 2s) << name;
  }
}

TEST_F(WithBroker, ConsumersAreThePushedOnesThenTheSubServers) {
  directory->subs = {"s2", "own", "s1"};
  Kestrum::ServerNameList list;
  EXPECT_EQ(Kestrum::GetServerNames("slave", list), 0);
  ASSERT_EQ(list.count(), 3);
  EXPECT_STREQ(list[0], "s2");

  vrData_Sender sender("own");
  for (const char* name : {"p", "s1", "p"}) sender.push_remote_consumer(name, "key");
  std::vector<ACE_String_Base<char>> consumers;
  sender.get_consumer_list(consumers);
  ASSERT_EQ(consumers.size(), 3u);
  EXPECT_STREQ(consumers[0].c_str(), "p");
  EXPECT_STREQ(consumers[1].c_str(), "s1");
  EXPECT_STREQ(consumers[2].c_str(), "s2");

  use_directory(nullptr, "");
  EXPECT_EQ(Kestrum::GetServerNames("slave", list), -1);
  EXPECT_EQ(list.count(), 0);
}

/// A reactor with a thread of its own.
class ReactorThread {
 public:
  ReactorThread() : thread_([this] { run(); }) {}
  ~ReactorThread() {
    reactor.end_reactor_event_loop();
    thread_.join();
  }
  ACE_Reactor reactor{new ACE_Select_Reactor, true};

 private:
  void run() {
    reactor.owner(ACE_Thread::self());
    reactor.run_reactor_event_loop();
  }
  std::thread thread_;
};

class CountingManager : public vrConnect_Manager {
 public:
  using vrConnect_Manager::vrConnect_Manager;
  ~CountingManager() override { stop(); }
  unsigned int on_connected(CORBA::Object_var& object) override {
    EXPECT_FALSE(CORBA::is_nil(object));
    ++connected;
    return answer;
  }
  void on_heartbeat() override { ++beats; }
  std::atomic<int> connected{0};
  std::atomic<int> beats{0};
  std::atomic<unsigned int> answer{0};
};

class ConnectManagerTest : public WithBroker {
 protected:
  ConnectManagerTest() {
    directory->references[{"m", ""}] = broker.from_text(peer.reference());
    manager.set_period(50ms);
  }
  /// Whether hook 1 has been called `times` times, and stays at that for some beats.
  void expect_connected(int times) {
    EXPECT_TRUE(eventually([&] { return manager.connected >= times; }));
    const int beats = manager.beats;
    EXPECT_TRUE(eventually([&] { return manager.beats >= beats + 3; }));
    EXPECT_EQ(manager.connected, times);
  }
  Peer peer;
  ReactorThread reactor;
  CountingManager manager{"m", nullptr, CORBA::Object_var(), &reactor.reactor};
};

TEST_F(ConnectManagerTest, ReportsThePeerWheneverItIsReachedAnew) {
  manager.start();
  expect_connected(1);

  peer.kill();
  expect_connected(1);
  peer.start();
  expect_connected(2);

  // Frozen: every beat costs a time-out, and hook 2 goes on.
  peer.signal(SIGSTOP);
  expect_connected(2);
  peer.signal(SIGCONT);
  expect_connected(3);

  // A hook that fails is called again until it succeeds.
  manager.answer = 1;
  peer.restart();
  EXPECT_TRUE(eventually([&] { return manager.connected >= 6; }));
  manager.answer = 0;
  const int before = manager.connected;
  EXPECT_TRUE(eventually([&] { return manager.connected > before; }));
}

TEST_F(ConnectManagerTest, NoticesARestartBetweenTwoBeats) {
  manager.set_period(1500ms);
  manager.start();
  EXPECT_TRUE(eventually([&] { return manager.beats == 1; }));
  EXPECT_EQ(manager.connected, 1);
  // Somebody else meets the lost connection and opens the next one, so the probe sees neither.
  peer.restart();
  const Port_Factory_var reference = lookup("m");
  EXPECT_THROW(reference->heart_bit(), CORBA::COMM_FAILURE);
  reference->heart_bit();
  ASSERT_EQ(manager.beats, 1) << "the restart took too long for this test";
  EXPECT_TRUE(eventually([&] { return manager.beats == 2; }));
  EXPECT_EQ(manager.connected, 2);
}

TEST_F(ConnectManagerTest, NoHookRunsAfterStop) {
  peer.signal(SIGSTOP);
  manager.start();
  EXPECT_TRUE(eventually([&] { return manager.beats >= 1; }));
  std::this_thread::sleep_for(100ms);  // into the next beat's time-out
  manager.stop();
  peer.signal(SIGCONT);
  const int beats = manager.beats;
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(manager.beats, beats);
  EXPECT_EQ(manager.connected, 0);
  manager.start();
  EXPECT_TRUE(eventually([&] { return manager.connected == 1; }));
}

class MovedClock : public Clock {
 public:
  MovedClock() { replace_clock(this); }
  ~MovedClock() override { replace_clock(nullptr); }
  ACE_Time_Value now() const override { return ACE_Time_Value(seconds); }
  void pause(const ACE_Time_Value&, const void*) override { std::this_thread::sleep_for(1ms); }
  std::atomic<int> seconds{1000000};
};

class FileHandleTest : public WithBroker {
 protected:
  Varo::FileHandle_var opened(const std::string& path) {
    PortableServer::Servant_var<FileHandleImpl> handle(new FileHandleImpl(path));
    EXPECT_TRUE(handle->open());
    return handle->_this();
  }
  FileHandleTest() {
    const PortableServer::ServantBase_var owner(new PeerServant);
    broker.serve(dynamic_cast<PeerServant*>(owner.in()));
  }
  static std::string read(Varo::FileHandle_ptr handle, CORBA::Long offset, CORBA::Long length) {
    Varo::DATA_BUFFER_var data;
    const CORBA::Long result = handle->read(offset, length, data);
    EXPECT_EQ(static_cast<CORBA::Long>(data->length()), length);
    if (result != 0) return "refused";
    return std::string(reinterpret_cast<const char*>(data->get_buffer()), data->length());
  }
  TemporaryFolder folder;
};

TEST_F(FileHandleTest, ShowsTheFileAsItWasWhenOpened) {
  const std::string path = folder.write("f", "0123456789");
  const Varo::FileHandle_var handle = opened(path);
  folder.write("f", "rewritten and longer");
  CORBA::Long size = 0;
  EXPECT_EQ(handle->size(size), 0);
  EXPECT_EQ(size, 10);
  EXPECT_EQ(read(handle, 0, 4), "0123");
  EXPECT_EQ(read(handle, 8, 100), "89");
  EXPECT_EQ(read(handle, 10, 1), "");
  EXPECT_EQ(read(handle, 2147483647, 2147483647), "");
  EXPECT_EQ(read(handle, 3, 0), "");
  EXPECT_EQ(read(handle, -1, 4), "refused");
  EXPECT_EQ(read(handle, 0, -1), "refused");

  handle->close();
  EXPECT_THROW(handle->size(size), CORBA::OBJECT_NOT_EXIST);
}

TEST_F(FileHandleTest, DeliversLargeFilesInPiecesAndEmptyAndMissingOnesToo) {
  std::string large(FileHandleImpl::largest_read * 2 + 5, ' ');
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 31 >> 3);
  const Varo::FileHandle_var handle = opened(folder.write("large", large));
  std::string together;
  for (;;) {
    const std::string piece = read(handle, static_cast<CORBA::Long>(together.size()), 2147483647);
    if (piece.empty()) break;
    EXPECT_LE(piece.size(), static_cast<std::size_t>(FileHandleImpl::largest_read));
    together += piece;
  }
  EXPECT_EQ(together, large);

  CORBA::Long size = -1;
  EXPECT_EQ(opened(folder.write("empty", ""))->size(size), 0);
  EXPECT_EQ(size, 0);
  const PortableServer::Servant_var<FileHandleImpl> missing(
      new FileHandleImpl(folder.file("missing")));
  EXPECT_FALSE(missing->open());
}

TEST_F(FileHandleTest, ClosesItselfWhenNobodyUsesItForFiveMinutes) {
  MovedClock clock;
  const Varo::FileHandle_var used = opened(folder.write("a", "a"));
  const Varo::FileHandle_var idle = opened(folder.write("b", "b"));
  clock.seconds += 200;
  EXPECT_EQ(read(used, 0, 1), "a");
  clock.seconds += 101;
  EXPECT_TRUE(eventually([&] {
    // Asking the adapter is no use of the handle.
    return idle->_non_existent();
  }));
  EXPECT_FALSE(used->_non_existent());
  EXPECT_EQ(read(used, 0, 1), "a");
}

}  // namespace
}  // namespace portsvc

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--peer") return portsvc::Peer::run(std::atoi(argv[2]));
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
