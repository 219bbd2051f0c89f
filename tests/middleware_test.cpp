// The broker folder and the stand-ins for the sibling libraries. Peers are real servers.
#include <ace/Reactor.h>
#include <ace/Select_Reactor.h>
#include <ace/Timer_Queue.h>
#include <signal.h>

#include <limits>
#include <optional>

#include "middleware/connect_manager.h"
#include "middleware/data_sender.h"
#include "middleware/file_handle.h"
#include "middleware/interface_name.h"
#include "middleware/reference_container.h"
#include "middleware/server_list.h"
#include "tests/support/folder.h"
#include "tests/support/peers.h"
#include "tests/support/process.h"
#include "tests/support/threads.h"

using namespace std::chrono_literals;
using Varo::DT_PORT_SVC::Port_Factory;
using Varo::DT_PORT_SVC::Port_Factory_var;

namespace portsvc {
namespace {

using std::chrono::steady_clock;

/// How long `work` takes.
template <class Work>
steady_clock::duration duration(Work work) {
  const auto start = steady_clock::now();
  work();
  return steady_clock::now() - start;
}

std::string address(int port, const char* key = object_key) {
  return "corbaloc:iiop:127.0.0.1:" + std::to_string(port) + "/" + key;
}

Port_Factory_var serve(orb::Broker& broker) {
  const PortableServer::Servant_var<Port_Factory_Main> servant(new Port_Factory_Main("peer"));
  return broker.serve(servant.in());
}

void call(const CORBA::Object_var& server) {
  Port_Factory_var(Port_Factory::_unchecked_narrow(server))->heart_bit();
}

/// A server in a process of its own, always at the same address.
class Peer {
 public:
  Peer() { start(); }
  /// Again, when it has been killed or still runs.
  void start() {
    const Words words = server_words("main", "peer", port, folder_.path());
    process_.emplace(Words{PORT_SERVER} + words, folder_.path("peer"));
    EXPECT_TRUE(process_->serves()) << process_->err();
  }
  void kill() { process_->kill(); }
  /// From here on it answers nothing.
  void freeze() const { process_->signal(SIGSTOP); }
  void thaw() const { process_->signal(SIGCONT); }

  const int port = free_port();

 private:
  TemporaryFolder folder_;
  std::optional<Process> process_;
};

/// A broker for one test, and a call time-out that does not try anybody's patience.
class Middleware : public ::testing::Test {
 protected:
  Middleware() {
    orb::set_peer_call_timeout(500ms);
    use_directory(directory, "");
  }
  ~Middleware() override {
    use_directory(nullptr, "");
    orb::set_peer_call_timeout(usual_timeout);
  }

  CORBA::Object_var object(int port, const char* key = object_key) const {
    return broker.from_text(address(port, key));
  }
  Port_Factory_var lookup(const char* server, const char* realm = nullptr) {
    return vrReferenceContainer::instance()->GetPortReferenceWithServerName(server, realm);
  }

  bool finds(const char* server, const char* realm = nullptr) {
    return !CORBA::is_nil(lookup(server, realm));
  }

  const std::chrono::milliseconds usual_timeout = orb::peer_call_timeout();
  const TemporaryFolder folder;
  orb::Broker broker{{"giop:tcp:127.0.0.1:0"}};
  const std::shared_ptr<FakeDirectory> directory = std::make_shared<FakeDirectory>();
};

TEST(Endpoint, IsRefusedInOneClearLine) {
  std::vector<std::pair<std::string, std::string>> cases{
      {"giop:tcp:192.0.2.1:0",
       "cannot listen on giop:tcp:192.0.2.1:0: the address is in use or not local"},
      {"giop:tcp:no-such-host.invalid:0",
       "cannot listen on giop:tcp:no-such-host.invalid:0: "
       "the host 'no-such-host.invalid' is unknown"},
      {"giop:ssl:127.0.0.1:0", "a giop:ssl endpoint needs a certificate and its authorities"}};
  for (const std::string malformed :
       {"nonsense", "giop:tcp:", "giop:tcp:127.0.0.1", "giop:tcp:h:65536", "giop:tcp:h:-1",
        "giop:tcp:h:9x", "giop:tcp:::1:0"}) {
    cases.emplace_back(malformed, "the endpoint '" + malformed +
                                      "' is malformed, wanted: "
                                      "giop:tcp:HOST:PORT or giop:ssl:HOST:PORT");
  }
  // A failed start leaves nothing behind: the next one succeeds.
  for (const char* good : {"giop:tcp:127.0.0.1:0", ""}) cases.emplace_back(good, "it starts");
  for (const auto& [endpoint, wanted] : cases) {
    std::string outcome = "it starts";
    try {
      orb::Broker broker({endpoint});
    } catch (const orb::Error& e) {
      outcome = e.what();
    }
    EXPECT_EQ(outcome, wanted);
  }
}

TEST_F(Middleware, BrokerServesUnderTheWellKnownKeyAndStopsOnlyWhenCallsHaveEnded) {
  const Port_Factory_var reference = serve(broker);
  EXPECT_EQ(broker.to_text(reference).rfind("IOR:", 0), 0u);
  // The reference has the key of the corbaloc, so it survives a restart.
  for (const std::string& text : {broker.corbaloc(reference), broker.to_text(reference)}) {
    EXPECT_TRUE(broker.from_text(text)->_is_equivalent(reference)) << text;
  }
  for (const char* text : {"", "nonsense", "IOR:00", "corbaloc:", "corbaloc:iiop:host:port/x",
                           "IOR:000000000000000100000000000000"}) {
    EXPECT_THROW(broker.from_text(text), orb::Error) << text;
  }

  create(reference, {"p"});
  const unsigned int id = connected(reference, "p", CONNECT_OWNER);
  TestClock clock;
  std::thread caller([&] { receive(reference, id, 1); });
  EXPECT_TRUE(clock.await_poll());
  EXPECT_LT(duration([&] { EXPECT_FALSE(broker.shutdown(300ms)); }), 1s);
  clock.advance(1);
  EXPECT_TRUE(broker.shutdown(10s));
  caller.join();
}

TEST_F(Middleware, CallsGiveUpWhenTheTimeoutOfTheInnermostScopeHasPassed) {
  const Peer silent;
  silent.freeze();
  const auto expect_call_takes = [&](auto least, auto limit) {
    const auto took =
        duration([&] { EXPECT_THROW(call(object(silent.port)), CORBA::SystemException); });
    EXPECT_GE(took, least);
    EXPECT_LT(took, limit);
  };
  // The broker did not start this thread.
  std::thread([&] {
    const orb::CallTimeout outer(2s);
    {
      const orb::CallTimeout inner(150ms);
      expect_call_takes(100ms, 500ms);
    }
    {
      const orb::CallTimeout usual;  // 500 ms
      expect_call_takes(450ms, 1900ms);
    }
    expect_call_takes(1900ms, 4s);
    const orb::CallTimeout rest(100ms);  // what is left of an exchange
    const orb::CallTimeout usual;
    expect_call_takes(50ms, 450ms);
  }).join();
}

TEST_F(Middleware, ConnectionsToAPeerAreCountedApart) {
  Peer peer;
  const Peer other;
  const CORBA::Object_var by_address = object(peer.port);
  const CORBA::Object_var by_name =
      broker.from_text("corbaloc:iiop:localhost:" + std::to_string(peer.port) + "/" + object_key);
  const orb::CallTimeout limit(2s);
  call(by_address);
  const auto first = orb::connections_opened(by_address);
  const auto first_by_name = orb::connections_opened(by_name);
  EXPECT_GE(first, 1u);
  call(by_address);
  call(object(other.port));
  EXPECT_EQ(orb::connections_opened(by_address), first) << "the connection is kept";

  peer.start();
  EXPECT_THROW(call(by_address), CORBA::COMM_FAILURE) << "nothing is sent twice";
  call(by_address);
  EXPECT_GT(orb::connections_opened(by_address), first);
  EXPECT_GT(orb::connections_opened(by_name), first_by_name);
}

TEST(InterfaceName, IsSplitAtTheLastSeparator) {
  const std::pair<const char*, const char*> cases[] = {{"plant/line/press", "plant/line|press"},
                                                       {"press", "|press"},
                                                       {"plant/", "plant|"},
                                                       {"", "|"},
                                                       {nullptr, "|"}};
  for (const auto& [name, parts] : cases) {
    ACE_String_Base<char> first("old"), second("old");
    VARO_UTIL_API::parse_interface(name, first, second);
    EXPECT_EQ(std::string(first.c_str()) + "|" + second.c_str(), parts);
  }
}

TEST_F(Middleware, FileListsServersInItsOrderAndIsFollowedButNotIntoADamagedState) {
  const std::string file = folder.path("d.ini");
  const auto entry = [](const std::string& name, const char* role, int port) {
    return directory_entry(name, role, address(port));
  };
  write_all(file, "role = main\n");
  EXPECT_THROW(open_file_directory(broker, file), orb::Error) << "a key outside of any section";
  write_all(file, "");
  const auto found = open_file_directory(broker, file);
  const auto knows = [&](const char* name, const char* realm) {
    return !CORBA::is_nil(found->resolve(name, realm));
  };
  EXPECT_FALSE(knows("m", ""));

  write_all(file, "; the plant\n" + entry("m", "main", 1) + entry("z", "slave", 2) +
                      "realm = north\n" + entry("a.b/c", "slave", 3));
  EXPECT_EQ(found->servers("slave", ""), (Texts{"z", "a.b/c"}));
  EXPECT_EQ(found->servers("slave", "south"), Texts{"a.b/c"});
  EXPECT_EQ(found->servers("main", "north"), Texts{"m"});
  EXPECT_EQ(found->servers("other", ""), Texts{});
  EXPECT_TRUE(knows("z", "north"));
  EXPECT_FALSE(knows("z", "south"));
  EXPECT_FALSE(knows("nobody", ""));

  write_all(file, "[m");
  EXPECT_TRUE(knows("z", ""));
  std::filesystem::remove(file);
  EXPECT_TRUE(knows("m", ""));
  write_all(file, entry("z", "slave", 2));
  EXPECT_FALSE(knows("m", ""));
}

TEST_F(Middleware, NamingServiceKnowsServersByRealmAndRole) {
  const int port = free_port();
  const Process service(naming_words(port, folder.path()), folder.path("naming"));
  const auto found = open_naming_directory(broker, address(port, "NameService"));
  const CORBA::Object_var one = object(1), two = object(2);
  ASSERT_TRUE(eventually([&] {
    try {
      found->bind("main/1.a", "", role_main, one);
      return true;
    } catch (const orb::Error&) {
      return false;
    }
  }));
  found->bind("b", "north", role_sub, two);
  // More than the naming service lists at once.
  for (int i = 10000; i < 11500; ++i) found->bind("a" + std::to_string(i), "", role_sub, one);
  const auto resolves_to = [&](const char* name, const char* realm, CORBA::Object_ptr to) {
    const CORBA::Object_var object = found->resolve(name, realm);
    return !CORBA::is_nil(object) && object->_is_equivalent(to);
  };
  for (const char* realm : {"", "south"}) EXPECT_TRUE(resolves_to("main/1.a", realm, one));
  for (const char* realm : {"", "north"}) EXPECT_TRUE(resolves_to("b", realm, two));
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

TEST_F(Middleware, WhoIsAbsentOrSilentCostsOneTimeoutAndIsNotFound) {
  const Peer peer;
  directory->enter("other", object(peer.port, "Nothing"));
  EXPECT_FALSE(finds("other")) << "a server, but no port service";
  peer.freeze();
  for (const int port : {free_port(), peer.port}) {
    const CORBA::Object_var server = object(port);
    directory->enter("server", server);
    EXPECT_LT(duration([&] { EXPECT_FALSE(finds("server")); }), 2s);

    const auto naming = open_naming_directory(broker, address(port, "NameService"));
    const auto took = duration([&] {
      EXPECT_TRUE(CORBA::is_nil(naming->resolve("m", "")));
      EXPECT_TRUE(naming->servers(role_sub, "").empty());
      EXPECT_THROW(naming->bind("m", "", role_main, server), orb::Error);
      naming->unbind("m", "", role_main, server);
    });
    EXPECT_LT(took, 4 * 500ms + 1s);
  }
}

TEST_F(Middleware, ReferencesAreKeptUntilReleased) {
  const Peer peer;
  EXPECT_FALSE(finds("m", "r"));
  directory->enter("m", object(peer.port));
  const Port_Factory_var first = lookup("m", "r");
  ASSERT_FALSE(CORBA::is_nil(first));
  EXPECT_TRUE(finds("m", "r"));
  EXPECT_EQ(directory->asked("m@r"), 2) << "not found, and found once";
  EXPECT_TRUE(finds("m"));
  EXPECT_EQ(directory->asked("m@"), 1) << "another realm";
  vrReferenceContainer::instance()->ReleasePortReference("m", "r");
  vrReferenceContainer::instance()->ReleasePortReference("unknown", nullptr);
  first->heart_bit();  // the caller's reference is its own
  EXPECT_TRUE(finds("m", "r"));
  EXPECT_EQ(directory->asked("m@r"), 3);
}

TEST_F(Middleware, ConsumersAreThePushedOnesThenTheSubServers) {
  directory->subs = {"s2", "own", "s1"};
  vrData_Sender sender("own");
  for (const char* name : {"p", "s1", "p"}) sender.push_remote_consumer(name, "key");
  std::vector<ACE_String_Base<char>> consumers;
  sender.get_consumer_list(consumers);
  std::string names;
  for (const auto& consumer : consumers) names.append(consumer.c_str()).append(" ");
  EXPECT_EQ(names, "p s1 s2 ");

  Kestrum::ServerNameList list;
  EXPECT_EQ(Kestrum::GetServerNames("slave", list), 0);
  ASSERT_EQ(list.count(), 3);
  EXPECT_STREQ(list[0], "s2");
  use_directory(nullptr, "");
  EXPECT_EQ(Kestrum::GetServerNames("slave", list), -1);
  EXPECT_EQ(list.count(), 0);
}

class CountingManager : public vrConnect_Manager {
 public:
  using vrConnect_Manager::vrConnect_Manager;
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

/// A manager of a connection to a peer, with a reactor that has a thread of its own.
class ConnectManager : public Middleware {
 protected:
  ConnectManager() {
    directory->enter("m", object(peer.port));
    manager.set_period(50ms);
  }
  ~ConnectManager() override {
    manager.stop();
    reactor.end_reactor_event_loop();
    thread.join();
  }
  void await(const std::atomic<int>& counter, int count) {
    EXPECT_TRUE(eventually([&] { return counter >= count; }));
  }
  /// Whether hook 1 has been called `times` times, and stays at that for some beats.
  void expect_connected(int times) {
    await(manager.connected, times);
    await(manager.beats, manager.beats + 3);
    EXPECT_EQ(manager.connected, times);
  }
  Peer peer;
  ACE_Reactor reactor{new ACE_Select_Reactor, true};
  std::thread thread{[this] {
    reactor.owner(ACE_Thread::self());
    reactor.run_reactor_event_loop();
  }};
  CountingManager manager{"m", nullptr, CORBA::Object_var(), &reactor};
};

TEST_F(ConnectManager, ReportsThePeerWheneverItIsReachedAnewUntilItIsStopped) {
  manager.start();
  expect_connected(1);
  peer.kill();
  expect_connected(1);
  peer.start();
  expect_connected(2);

  // Frozen: every beat costs a time-out, and hook 2 goes on.
  peer.freeze();
  expect_connected(2);
  peer.thaw();
  expect_connected(3);

  // A hook that fails is called again until it succeeds.
  manager.answer = 1;
  peer.start();
  await(manager.connected, 6);
  manager.answer = 0;
  await(manager.connected, manager.connected + 1);

  manager.stop();
  const int beats = manager.beats;
  EXPECT_TRUE(reactor.timer_queue()->is_empty()) << "there is a beat to come";
  manager.start();
  await(manager.beats, beats + 1);
}

TEST_F(ConnectManager, NoticesARestartBetweenTwoBeats) {
  manager.set_period(3000ms);
  manager.start();
  await(manager.beats, 1);
  EXPECT_EQ(manager.connected, 1);
  // Somebody else meets the lost connection and opens the next one, so the probe sees neither.
  peer.start();
  const Port_Factory_var reference = lookup("m");
  EXPECT_THROW(reference->heart_bit(), CORBA::COMM_FAILURE);
  reference->heart_bit();
  ASSERT_EQ(manager.beats, 1) << "the restart took too long for this test";
  await(manager.beats, 2);
  EXPECT_EQ(manager.connected, 2);
}

class FileHandle : public Middleware {
 protected:
  FileHandle() { serve(broker); }
  // Nil when it cannot be opened.
  Varo::FileHandle_var opened(const std::string& name) {
    const PortableServer::Servant_var<FileHandleImpl> handle(new FileHandleImpl(folder.path(name)));
    return handle->open() ? handle->_this() : Varo::FileHandle::_nil();
  }
  static std::string read(const Varo::FileHandle_var& handle, CORBA::Long offset,
                          CORBA::Long length) {
    Varo::DATA_BUFFER_var data;
    const CORBA::Long result = handle->read(offset, length, data);
    EXPECT_EQ(static_cast<CORBA::Long>(data->length()), length);
    if (result != 0) return "refused";
    return std::string(reinterpret_cast<const char*>(data->get_buffer()), data->length());
  }
};

TEST_F(FileHandle, ReadsAnyPartOfTheFileAsItWasWhenOpened) {
  constexpr CORBA::Long most = FileHandleImpl::largest_read;
  constexpr CORBA::Long end = 2 * most + 5;
  constexpr CORBA::Long any = std::numeric_limits<CORBA::Long>::max();
  std::string content(end, ' ');
  for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i / 7 + i / 4099);
  EXPECT_TRUE(CORBA::is_nil(opened("f")));
  write_all(folder.path("f"), content);
  const Varo::FileHandle_var handle = opened("f");
  write_all(folder.path("f"), "");
  const Varo::FileHandle_var empty = opened("f");
  CORBA::Long size = -1;
  EXPECT_EQ(handle->size(size), 0);
  EXPECT_EQ(size, end);
  EXPECT_EQ(empty->size(size), 0);
  EXPECT_EQ(size, 0);
  EXPECT_EQ(read(empty, 0, 5), "");
  const std::tuple<CORBA::Long, CORBA::Long, CORBA::Long> cases[] = {
      {0, 4, 4},     {3, 0, 0},      {end - 2, 100, 2}, {end, 1, 0},
      {any, any, 0}, {0, any, most}, {most, any, most}, {2 * most, any, 5}};
  for (const auto& [offset, length, got] : cases) {
    EXPECT_TRUE(read(handle, offset, length) ==
                content.substr(static_cast<std::size_t>(std::min(offset, end)),
                               static_cast<std::size_t>(got)))
        << length << " bytes at " << offset;
  }
  EXPECT_EQ(read(handle, -1, 4), "refused");
  EXPECT_EQ(read(handle, 0, -1), "refused");
  handle->close();
  EXPECT_THROW(handle->size(size), CORBA::OBJECT_NOT_EXIST);
}

TEST_F(FileHandle, ClosesItselfWhenNobodyUsesItAndWhenThereAreTooMany) {
  TestClock clock;
  write_all(folder.path("f"), "a");
  const Varo::FileHandle_var used = opened("f"), idle = opened("f");
  clock.advance(200);
  EXPECT_EQ(read(used, 0, 1), "a");
  clock.advance(101);
  // Asking the adapter is no use of the handle.
  EXPECT_TRUE(eventually([&] { return idle->_non_existent(); }));
  EXPECT_FALSE(used->_non_existent());
  EXPECT_EQ(read(used, 0, 1), "a");
  // Nor are more than so many open; the oldest makes room.
  std::vector<Varo::FileHandle_var> many;
  while (many.size() + 1 < FileHandleImpl::most_handles) many.push_back(opened("f"));
  EXPECT_FALSE(used->_non_existent());
  many.push_back(opened("f"));
  EXPECT_TRUE(used->_non_existent());
  EXPECT_FALSE(many.front()->_non_existent());
}

}  // namespace
}  // namespace portsvc
