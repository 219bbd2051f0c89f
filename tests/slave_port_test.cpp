#include "ports/slave_port.h"

#include "tests/support/peers.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

// A servant whose peer the test chooses.
class Host : public MainServer {
 public:
  Varo::DT_PORT_SVC::Port_Factory_var get_remote_point() override { return peer; }
  void releaseRemotePoint() override { ++released; }
  std::uint64_t peer_life(Varo::DT_PORT_SVC::Port_Factory_ptr at, bool open) override {
    if (open) {
      at->heart_bit();
      life += restarted ? 1 : 0;
    }
    return life;
  }
  void note_peer_handle(unsigned int handle, std::uint64_t of, PeerHandle now) override {
    if (of == life) handles[handle] = now;
  }
  void note_peer_owner(Port_impl*, Varo::DT_PORT_SVC::Port_Factory_ptr at) override {
    if (CORBA::is_nil(at)) ++unsettled;
  }

  Varo::DT_PORT_SVC::Port_Factory_var peer;
  std::atomic<int> released{0};
  std::uint64_t life = 1;
  bool restarted = false;  // which shows when a connection is opened
  std::map<unsigned int, PeerHandle> handles;
  int unsettled = 0;
};

class SlavePort : public WithPeers {
 protected:
  SlavePort() { host.peer = Varo::DT_PORT_SVC::Port_Factory::_duplicate(peer.reference()); }
  unsigned int connect(unsigned int handle, unsigned int mode,
                       unsigned int access = ACCESS_SELECT) {
    reported = untouched;
    return port.connect(handle, mode, access, reported);
  }
  Received receive(unsigned int timeout = 5) { return portsvc::receive(port, timeout); }
  unsigned int send(unsigned int handle, unsigned int timeout = 5) {
    return port.forward(handle, buffer("data"), timeout);
  }
  Reply reply(unsigned int handle, unsigned int timeout = 5) {
    return portsvc::reply(port, handle, timeout);
  }
  bool owner_connected() {
    unsigned int access = 0, kind = 0, limit = 0;
    bool here = false;
    port.info(access, kind, here, limit);
    return here && access == 0;  // the owner's access is the peer's affair
  }

  Active<FakePeer> peer;
  Host host;
  vrSlave_Port port{"p", 77, 3, &host};
  unsigned int reported = untouched;
};

TEST_F(SlavePort, AnswersThatItHasNoPeer) {
  host.peer = Varo::DT_PORT_SVC::Port_Factory::_nil();
  EXPECT_EQ(connect(77, CONNECT_OWNER), result::no_peer);
  EXPECT_EQ(reported, untouched);
  EXPECT_EQ(receive(), Received(result::no_peer, untouched, "untouched"));
  EXPECT_EQ(port.replay(1, buffer("x"), 5), result::no_peer);
  EXPECT_EQ(port.disconnect(77), result::no_peer);
  EXPECT_EQ(send(758), result::no_peer);
  EXPECT_EQ(port.has_client(758), result::unknown_name);
  EXPECT_EQ(reply(758), Reply(result::no_peer, "untouched"));
  // Clients are a local matter.
  EXPECT_EQ(connect(758, CONNECT_CLIENT), result::ok);
  EXPECT_EQ(reported, 0u);
  EXPECT_EQ(port.disconnect(758), result::ok);
  EXPECT_EQ(port.disconnect(758), result::unknown_handle);
  EXPECT_EQ(host.released, 0);
}

TEST_F(SlavePort, KeepsToItselfWhatThePeerNeedNotKnow) {
  EXPECT_EQ(connect(758, CONNECT_CLIENT), result::ok);
  EXPECT_EQ(connect(758, PORT_SLAVE), result::bad_mode);
  EXPECT_EQ(port.forward_front(758, buffer("x"), 5), result::ok);
  EXPECT_EQ(port.disconnect(758), result::ok);
  port.set_connected_host("host");
  EXPECT_EQ(port.connected_host(), "");
  port.push_event(event("e"));
  vrPort_Buffer packet;
  EXPECT_EQ(port.event_count(), 0u);
  for (const unsigned int code :
       {port.take_packet(packet, 0), port.wait_receiver(758, 0), port.take_reply(758, 0, packet)}) {
    EXPECT_EQ(code, result::failed);
  }
  EXPECT_EQ(receive(), Received(result::unknown_handle, untouched, "untouched"))
      << "no owner has connected through the peer";
  EXPECT_EQ(peer->calls(), Texts());
}

TEST_F(SlavePort, ConnectsItsOwnerAtThePeer) {
  EXPECT_EQ(connect(77, CONNECT_OWNER), result::ok);
  EXPECT_EQ(peer->calls(), (Texts{"connect_port p 30004 30002"}));
  EXPECT_TRUE(owner_connected());
  EXPECT_EQ(port.select(true), result::access_refused);

  peer->answer("packet_receive", {result::ok, result::timed_out});
  EXPECT_EQ(receive(), Received(result::ok, remote_client_offset + 42, "packet"));
  EXPECT_EQ(port.has_client(remote_client_offset + 42), result::ok);
  EXPECT_EQ(receive(), Received(result::timed_out, untouched, "untouched"));
  peer->answer("packet_replay", {result::unknown_handle});
  EXPECT_EQ(port.replay(42, buffer("answer"), 6), result::unknown_handle);
  EXPECT_EQ(peer->calls(),
            (Texts{"packet_receive 77 5", "packet_receive 77 5", "packet_replay 42 answer 6"}));

  peer->answer("disconnect_port", {result::not_connected});
  EXPECT_EQ(port.disconnect(77), result::ok);
  EXPECT_FALSE(owner_connected());
  EXPECT_EQ(std::get<0>(receive()), result::timed_out) << "the peer answers for its own port";

  peer->answer("connect_port", {result::owner_exists});
  peer->reported_owner = 55;
  EXPECT_EQ(connect(77, CONNECT_OWNER), result::owner_exists);
  EXPECT_EQ(reported, 55u);
  EXPECT_EQ(port.port_id(), 55u);
  EXPECT_EQ(std::get<0>(receive()), result::unknown_handle);
}

TEST_F(SlavePort, CarriesARequestToThePeerAndItsAnswerBack) {
  connect(758, CONNECT_CLIENT);
  EXPECT_EQ(send(758, 6), result::ok);
  EXPECT_EQ(reply(758, 7), Reply(result::ok, "reply"));
  EXPECT_EQ(peer->calls(), (Texts{"connect_port p 30003 30001", "packet_foward 1 data 6",
                                  "packet_replay_wait 1 7", "disconnect_port 1"}));
  // A client that nobody knows is entered with no access.
  EXPECT_EQ(send(999), result::ok);
  EXPECT_EQ(peer->calls().front(), "connect_port p 30003 0");
  EXPECT_EQ(port.has_client(999), result::ok);

  peer->answer("packet_replay_wait", {result::reply_timed_out});
  EXPECT_EQ(reply(999), Reply(result::reply_timed_out, "untouched"));
  EXPECT_EQ(peer->calls().back(), "disconnect_port 2") << "also when no answer came";
  peer->answer("packet_foward", {result::owner_not_taking});
  EXPECT_EQ(send(758), result::owner_not_taking);
  peer->answer("connect_port", {result::unknown_name});
  peer->calls();
  EXPECT_EQ(send(759), result::unknown_name);
  EXPECT_EQ(peer->calls().size(), 1u);
}

TEST_F(SlavePort, LeavesNoConnectionOpenAtThePeer) {
  for (const unsigned int handle : {758u, 759u}) connect(handle, CONNECT_CLIENT);
  send(758);
  send(759);
  send(758);  // without having waited
  EXPECT_EQ(reply(759), Reply(result::ok, "reply"));
  port.disconnect(758);
  // One that leaves, and one that sends twice, while the connection is made.
  for (const bool leaves : {true, false}) {
    const unsigned int handle = leaves ? 760 : 758;
    connect(handle, CONNECT_CLIENT);
    peer->during = [&](const std::string& operation) {
      if (operation != "connect_port") return;
      peer->during = nullptr;
      leaves ? port.disconnect(handle) : send(handle);
    };
    send(handle);
  }
  EXPECT_EQ(reply(758), Reply(result::ok, "reply"));
  std::set<std::string> open;
  int connections = 0;
  for (const std::string& call : peer->calls()) {
    if (call.rfind("connect_port", 0) == 0) open.insert(std::to_string(++connections));
    if (call.rfind("disconnect_port ", 0) == 0) open.erase(call.substr(16));
  }
  EXPECT_EQ(connections, 6);
  EXPECT_EQ(open, std::set<std::string>());
  for (const auto& [handle, state] : host.handles) EXPECT_EQ(state, PeerHandle::closed) << handle;
}

TEST_F(SlavePort, ForgetsInAnotherLifeOfThePeerWhatItWasGivenBefore) {
  connect(77, CONNECT_OWNER);
  for (const unsigned int handle : {758u, 759u}) {
    connect(handle, CONNECT_CLIENT);
    send(handle);
  }
  EXPECT_EQ(std::get<1>(receive()), remote_client_offset + 42);
  EXPECT_EQ(port.disconnect(remote_client_offset + 42), result::ok);
  EXPECT_EQ(std::get<1>(receive()), remote_client_offset + 42) << "it is back";
  peer->answer("packet_receive", {result::unknown_handle, result::ok});
  receive();
  EXPECT_EQ(host.unsettled, 1) << "its id may have changed there";
  ++host.life;
  peer->calls();
  EXPECT_EQ(port.replay(42, buffer("stale"), 5), result::unknown_handle);
  EXPECT_EQ(port.has_client(remote_client_offset + 42), result::unknown_name);
  reply(758);
  port.disconnect(759);
  EXPECT_EQ(peer->calls(), Texts{"packet_replay_wait 0 5"});
  EXPECT_EQ(std::get<1>(receive()), remote_client_offset + 42);
  EXPECT_EQ(port.replay(42, buffer("fresh"), 5), result::ok);
  EXPECT_TRUE(port.settle_owner(host.peer.in()));
  EXPECT_EQ(peer->calls().back(), "connect_port p 30004 30002") << "it is not there in this life";
  EXPECT_TRUE(port.settle_owner(host.peer.in()));
  EXPECT_EQ(peer->calls(), Texts());
}

// Whoever opens the first connection to a restarted server learns of the other life before its own
// call, which was meant for the earlier one, is sent.
TEST_F(SlavePort, SendsNothingToAnotherLifeOfThePeerThanItWasMeantFor) {
  const PortableServer::Servant_var<FakePeer> server(new FakePeer);
  const auto inside = broker.serve(server.in());
  std::string address = broker.corbaloc(inside.in());
  const std::pair<const char*, std::function<void()>> calls[] = {
      {"packet_receive", [&] { receive(); }},
      {"packet_replay", [&] { port.replay(42, buffer("answer"), 5); }},
      {"packet_replay_wait", [&] { reply(758); }},
      {"disconnect_port", [&] { port.disconnect(758); }}};
  for (const bool restarted : {false, true}) {
    for (const auto& [call, make] : calls) {
      host.peer = inside;
      host.restarted = false;
      connect(77, CONNECT_OWNER);
      connect(758, CONNECT_CLIENT);
      send(758);
      receive();
      server->calls();
      // Spelled anew, it is reached by a connection of its own.
      address.replace(address.find("127.0"), 5, "127.00");
      host.peer = Varo::DT_PORT_SVC::Port_Factory::_unchecked_narrow(broker.from_text(address));
      host.restarted = restarted;
      make();
      const Texts sent = server->calls();
      EXPECT_EQ(sent.empty(), restarted) << call;
      EXPECT_TRUE(sent.empty() || sent.front().rfind(call, 0) == 0) << sent.front();
    }
  }
}

TEST_F(SlavePort, WaitsForEverInPieces) {
  connect(77, CONNECT_OWNER);
  connect(758, CONNECT_CLIENT);
  peer->calls();
  peer->answer("packet_receive", {result::timed_out, result::timed_out, result::ok});
  peer->answer("packet_foward", {result::send_timed_out, result::ok});
  peer->answer("packet_replay_wait", {result::reply_timed_out, result::ok});
  EXPECT_EQ(std::get<0>(receive(0)), result::ok);
  EXPECT_EQ(send(758, 0), result::ok);
  EXPECT_EQ(reply(758, 0), Reply(result::ok, "reply"));
  EXPECT_EQ(
      peer->calls(),
      (Texts{"packet_receive 77 30", "packet_receive 77 30", "packet_receive 77 30",
             "connect_port p 30003 30001", "packet_foward 2 data 30", "packet_foward 2 data 30",
             "packet_replay_wait 2 30", "packet_replay_wait 2 30", "disconnect_port 2"}));
}

TEST_F(SlavePort, AnswersACodeForEveryBrokerException) {
  connect(758, CONNECT_CLIENT);
  peer->fail("connect_port");
  EXPECT_EQ(connect(77, CONNECT_OWNER), result::ok);
  EXPECT_EQ(host.released, 1);
  EXPECT_FALSE(owner_connected());
  EXPECT_EQ(std::get<0>(receive()), result::unknown_handle);
  EXPECT_EQ(send(758), result::peer_forward);
  EXPECT_EQ(host.released, 2);
  peer->fail("connect_port", false);
  connect(77, CONNECT_OWNER);

  for (const char* operation : {"packet_receive", "packet_foward", "packet_replay",
                                "packet_replay_wait", "disconnect_port"}) {
    peer->fail(operation);
  }
  EXPECT_EQ(receive(), Received(result::peer_receive, untouched, "untouched"));
  EXPECT_EQ(port.replay(42, buffer("x"), 5), result::peer_receive);
  EXPECT_EQ(send(758), result::peer_forward);
  EXPECT_EQ(host.released, 5);
  EXPECT_EQ(host.handles.rbegin()->second, PeerHandle::left_open) << "it is closed one day";
  EXPECT_EQ(reply(758), Reply(result::failed, "untouched"));
  EXPECT_EQ(port.disconnect(77), result::peer_disconnect);
  EXPECT_FALSE(port.has_owner_here());
  EXPECT_TRUE(owner_connected());
  EXPECT_EQ(host.released, 5) << "these two keep the reference";

  peer->fail("packet_foward", false);
  EXPECT_EQ(send(758), result::ok);
  EXPECT_EQ(port.disconnect(758), result::ok) << "whatever the peer says";
  peer.stop();
  EXPECT_EQ(send(759), result::peer_forward);
}

}  // namespace
}  // namespace portsvc
