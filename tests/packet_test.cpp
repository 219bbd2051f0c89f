// Packets and replies through the servant's operations.
#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/allocation.h"
#include "tests/support/servers.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

class Packets : public ::testing::Test {
 protected:
  Packets() {
    EXPECT_EQ(server.create_port("p", PORT_MASTER, 3), result::ok);
    EXPECT_EQ(server.create_port("box", PORT_EVENTBOX, 3), result::ok);
  }
  // A watching owner, so that packets are queued without a take.
  unsigned int watching_owner() {
    const unsigned int id = owner(server, "p", ACCESS_SELECT);
    EXPECT_EQ(server.get_port(id)->select(true), result::ok);
    return id;
  }

  TestClock clock;
  MainServer server;
};

TEST_F(Packets, NeedTheRightKindOfHandle) {
  const unsigned int id = watching_owner();
  const unsigned int handle = client(server, "p");
  const unsigned int box_client = client(server, "box");
  for (const unsigned int wrong : {id, box_client, 1u}) {
    EXPECT_EQ(send(server, wrong, "x"), result::unknown_handle);
    EXPECT_EQ(server.packet_foward_front(wrong, wire("x"), 0), result::unknown_handle);
    EXPECT_EQ(server.packet_replay(wrong, wire("x"), 0), result::unknown_handle);
    EXPECT_EQ(reply(server, wrong), Reply(result::unknown_handle, ""));
  }
  for (const unsigned int wrong : {handle, box_client, 1u}) {
    EXPECT_EQ(receive(server, wrong), Received(result::unknown_handle, untouched, ""));
    EXPECT_EQ(receive_n(server, wrong, 5), Events(result::unknown_handle, {}));
  }
}

TEST_F(Packets, AreCopiesOfTheArguments) {
  const unsigned int id = watching_owner();
  const unsigned int handle = client(server, "p");
  std::string bytes(50 << 20, '\0');
  for (std::size_t i = 0; i < bytes.size(); i += 997) bytes[i] = static_cast<char>(i);
  const Varo::DATA_BUFFER large = wire(bytes);
  EXPECT_EQ(server.packet_foward(handle, large, 0), result::ok);
  EXPECT_EQ(server.packet_replay(handle, large, 0), result::ok);
  EXPECT_TRUE(text(large) == bytes) << "a caller in this process keeps its argument";
  EXPECT_TRUE(receive(server, id) == Received(result::ok, handle, bytes));
  EXPECT_TRUE(reply(server, handle) == Reply(result::ok, bytes));
}

TEST_F(Packets, SayWhenAnAnswerCannotBeAllocated) {
  const unsigned int id = watching_owner();
  const unsigned int handle = client(server, "p", ACCESS_SELECT);
  send(server, handle, "a");
  server.packet_replay(handle, wire("a"), 0);
  server.send_event("box", wire("e"));
  const unsigned int box = id_of(server, "box");
  CORBA::ULong source = 0;
  Varo::DATA_BUFFER_var data;
  Varo::DATA_BUFFER_SEQ_var list;
  const NoMemory scope;
  const auto failed = [](unsigned int code) {
    return std::make_pair(code, std::exchange(errno, 0));
  };
  const auto after_the_call = std::make_pair(result::out_of_memory, ENOMEM);
  const auto elsewhere = std::make_pair(result::failed, ENOMEM);
  errno = 0;
  EXPECT_EQ(failed(server.packet_receive(1, source, data.out(), 0)), elsewhere);
  EXPECT_EQ(failed(server.packet_receive(id, source, data.out(), 0)), after_the_call);
  EXPECT_EQ(failed(server.packet_receive(id, source, data.out(), 0)), after_the_call)
      << "whatever the port answered";
  EXPECT_EQ(failed(server.packet_replay_wait(1, data.out(), 0)), elsewhere);
  EXPECT_EQ(failed(server.packet_replay_wait(handle, data.out(), 0)), after_the_call);
  EXPECT_EQ(failed(server.packet_replay_wait(handle, data.out(), 0)), elsewhere);
  EXPECT_EQ(failed(server.packet_receive_n(1, list.out(), 5, 0)), elsewhere);
  EXPECT_EQ(failed(server.packet_receive_n(box, list.out(), 5, 0)), elsewhere);
  EXPECT_EQ(failed(server.packet_receive_n(box, list.out(), 5, 0)), elsewhere);
}

TEST_F(Packets, AnswerEveryOneOfManyClients) {
  constexpr int clients = 6;
  constexpr int requests = 15;
  const unsigned int id = owner(server, "p");
  in_parallel(clients + 1, [&](int i) {
    if (i == clients) {
      for (int n = 0; n < clients * requests; ++n) {
        const auto [code, source, data] = receive(server, id);
        ASSERT_EQ(code, result::ok);
        server.packet_replay(source, wire("re: " + data), 0);
      }
      return;
    }
    const unsigned int handle = client(server, "p");
    for (int n = 0; n < requests; ++n) {
      const std::string request = std::to_string(i) + "." + std::to_string(n);
      ASSERT_EQ(send(server, handle, request.c_str()), result::ok);
      ASSERT_EQ(reply(server, handle), Reply(result::ok, "re: " + request));
    }
  });
}

}  // namespace
}  // namespace portsvc
