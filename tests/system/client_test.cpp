// The client library against real servers: what programs rely on when all is well, when nothing
// comes, when somebody else has the port, and when the server goes and comes back.
#include "portsvc/client.h"

#include "tests/system/system_test.h"

namespace portsvc {
namespace {

using client::Client;
using client::Connection;
using client::forever;
using client::Owner;
using client::Packet;
using client::Payload;
using client::Subscription;

class ClientLibrary : public SystemTest {
 protected:
  ClientLibrary() { start("main", {"--max-message", "8000000"}); }
  Connection connect(const std::string& name) {
    return Connection(fmt::format("127.0.0.1:{}", port(name)));
  }
  Connection connect_by_name(const std::string& name) {
    client::Options options;
    options.directory = directory[1];
    return Connection(name, options);
  }
  static client::OwnerOptions creating(client::Access access = client::Access::wait) {
    client::OwnerOptions options;
    options.access = access;
    options.create = 10;
    return options;
  }
  /// The code with which a constructor fails, 0 when it does not.
  template <class Make>
  static unsigned int failure_of(Make make) {
    try {
      make();
      return result::ok;
    } catch (const client::Error& error) {
      return error.result().code();
    }
  }
  /// Answers packets with "re:" and what they hold until the owner is cancelled.
  static std::future<client::Result> answering(Owner& owner) {
    return started([&owner] {
      Packet packet;
      for (;;) {
        if (const client::Result taken = owner.receive(packet); !taken) return taken;
        (void)owner.reply(packet.from, "re:" + std::string(packet.data.text()));
      }
    });
  }
  static std::string asked(Client& client, const std::string& question) {
    Payload reply;
    const client::Result result = client.ask(question, reply, 20s);
    return result ? std::string(reply.text()) : result.text();
  }
  /// Cancels what another thread waits for, which takes no longer than a call.
  template <class Wait, class Cancel>
  static void expect_cancelled(Wait wait, Cancel cancel) {
    auto answer = started(wait);
    EXPECT_EQ(answer.wait_for(1300ms), std::future_status::timeout);  // into its second call
    const auto start = steady_clock::now();
    cancel();
    EXPECT_EQ(answer.get(), client::failure::cancelled);
    EXPECT_LT(since(start), 3s);
  }
};

TEST_F(ClientLibrary, CarriesRequestsRepliesAndEventsAndLetsGoOfWhatItHolds) {
  Connection main = connect("main");
  {
    Owner owner(main, "p", creating());
    auto owned = answering(owner);
    in_parallel(8, [&](int i) {
      Client client(main, "p");
      for (int j = 0; j < 5; ++j) {
        const std::string question = fmt::format("{}.{}", i, j);
        EXPECT_EQ(asked(client, question), "re:" + question);
      }
    });
    Connection by_name = connect_by_name("main");
    Client client(by_name, "p");
    const std::string large(5'000'000, 'x');
    EXPECT_TRUE(asked(client, large) == "re:" + large);
    EXPECT_EQ(asked(client, std::string(9'000'000, 'x')),
              client::Result(client::failure::too_large).text());
    EXPECT_EQ(asked(client, "small"), "re:small") << "a message that is refused spoils nothing";

    EXPECT_EQ(failure_of([&] { Owner(by_name, "p"); }), result::owner_exists);
    EXPECT_EQ(failure_of([&] { client::Box(main, "p"); }), result::access_refused);
    EXPECT_EQ(failure_of([&] { Client(main, "none"); }), result::unknown_name);
    EXPECT_EQ(failure_of([&] { connect_by_name("none"); }), client::failure::not_listed);
    EXPECT_EQ(failure_of([&] { Connection("127.0.0.1:1"); }), client::failure::unreachable);
    expect_cancelled([&] { return owned.get(); }, [&] { owner.cancel(); });
  }
  client::PortInfo info;
  EXPECT_TRUE(main.info("p", info));
  EXPECT_FALSE(info.owner_connected);
  EXPECT_EQ(done("main", {"connections"}).find("p "), std::string::npos);

  {
    client::Box a(main, "a", creating()), b(main, "b", creating());
    client::Box* from = nullptr;
    std::vector<Payload> events;
    EXPECT_TRUE(main.put("b", "x"));
    EXPECT_TRUE(take({&a, &b}, from, events, 9, 5s));
    EXPECT_EQ(from, &b);
    EXPECT_EQ(take({&a, &b}, from, events, 9, 0s), result::timed_out);
    expect_cancelled([&] { return a.take(events, 9); },
                     [&] {
                       a.cancel();
                       EXPECT_TRUE(main.put("a", "nobody takes it"));
                     });
    unsigned int left = 0;
    EXPECT_TRUE(main.count("a", left));
    EXPECT_EQ(left, 1u);
    EXPECT_TRUE(main.release("b"));
    EXPECT_EQ(b.take(events, 9, 5s), result::not_connected);
  }
  EXPECT_TRUE(main.remove("a") && main.remove("b"));

  std::vector<std::string> ports, boxes;
  {
    Subscription first(main, {7}), second(main, {7, 8});
    EXPECT_EQ(failure_of([&] { Client(main, first.box()); }), result::access_refused);
    EXPECT_EQ(main.declare(9, "x"), result::not_subscribed);
    EXPECT_TRUE(main.declare(7, std::vector<client::Bytes>{"a", "", "c"}));
    EXPECT_TRUE(main.declare(8, "d"));
    std::vector<Payload> events;
    const auto texts = [&](Subscription& subscription) {
      std::string all;
      EXPECT_TRUE(subscription.take(events, 10, 0s));
      for (const Payload& event : events) all += std::string(event.text()) + ";";
      return all;
    };
    EXPECT_EQ(texts(first), "a;;c;");
    EXPECT_EQ(texts(second), "a;;c;d;");
    Payload none;
    EXPECT_EQ(first.take(none, 0s), result::timed_out);
    expect_cancelled([&] { return first.take(none); }, [&] { main.cancel(); });
    Connection other = connect("main");
    EXPECT_TRUE(other.list(ports, boxes));
    EXPECT_EQ(boxes.size(), 2u);
  }
  EXPECT_TRUE(main.list(ports, boxes));
  EXPECT_TRUE(boxes.empty());
}

TEST_F(ClientLibrary, WaitsAsLongAsItIsToldAndTakesNoReplyForAnother) {
  Connection main = connect("main");
  Owner owner(main, "p", creating());
  Client client(main, "p");
  Packet packet;
  Payload reply;
  const auto timed = [](auto wait) {
    const auto start = steady_clock::now();
    const client::Result result = wait();
    EXPECT_GE(since(start), 1900ms) << result.text();
    EXPECT_LT(since(start), 4s) << result.text();
    return result;
  };
  EXPECT_EQ(timed([&] { return client.send("x", 2s); }), result::send_timed_out);
  EXPECT_EQ(timed([&] { return owner.receive(packet, 2s); }), result::timed_out);
  EXPECT_EQ(timed([&] { return client.wait_reply(reply, 2s); }), result::reply_timed_out);

  auto first = started([&] { return client.ask("first", reply, 2s); });
  EXPECT_TRUE(owner.receive(packet, 10s));
  EXPECT_EQ(first.get(), result::reply_timed_out);
  EXPECT_TRUE(owner.reply(packet.from, "late"));
  auto owned = answering(owner);
  EXPECT_EQ(asked(client, "second"), "re:second");
  owner.cancel();
  EXPECT_EQ(owned.get(), client::failure::cancelled);

  // Selections, of both sides; a port whose owner selects admits at once.
  Owner a(main, "a", creating(client::Access::select));
  Owner b(main, "b", creating(client::Access::select));
  Client asker(main, "b", client::Access::select);
  Owner* ready = nullptr;
  EXPECT_EQ(asker.send("x", 1s), result::owner_not_taking);
  auto selected = started([&] { return select({&a, &b}, ready, 10s); });
  EXPECT_TRUE(eventually([&] { return asker.send("x", 1s).ok(); }));
  EXPECT_TRUE(selected.get());
  ASSERT_EQ(ready, &b);
  EXPECT_EQ(a.receive(packet, 0s), result::timed_out);
  EXPECT_TRUE(b.receive(packet, 0s));
  EXPECT_EQ(asker.wait_reply(reply, 1s), result::nothing_arrived);
  EXPECT_TRUE(b.reply(packet.from, "y"));
  Client* answered = nullptr;
  EXPECT_TRUE(select({&asker}, answered, 10s));
  EXPECT_EQ(answered, &asker);
  EXPECT_TRUE(asker.wait_reply(reply, 1s));
  EXPECT_EQ(reply.text(), "y");
  EXPECT_EQ(select({&asker}, answered, 1s), result::timed_out);
}

TEST_F(ClientLibrary, GoesOnAtAServerThatComesBackAndSendsNothingToAnotherPort) {
  Connection main = connect_by_name("main");
  Owner owner(main, "p", creating());
  auto owned = answering(owner);
  Client client(main, "p");
  EXPECT_EQ(asked(client, "before"), "re:before");
  Owner silent(main, "silent", creating());
  Client waiting(main, "silent");
  Packet request;
  auto sent = started([&] { return waiting.send("x", 10s); });
  EXPECT_TRUE(silent.receive(request, 10s));
  EXPECT_TRUE(sent.get());
  Payload reply;
  auto lost = started([&] { return waiting.wait_reply(reply, forever); });
  Subscription subscription(main, {7});
  Payload event;
  auto watched = started([&] { return subscription.take(event); });

  kill("main");
  // A call on a connection that is just breaking may be lost; from then on nobody is there.
  EXPECT_TRUE(eventually([&] { return main.put("p", "x") == client::failure::unreachable; }));
  EXPECT_THAT(main.explain(main.put("p", "x")), HasSubstr("connection refused"));
  EXPECT_EQ(lost.get(), client::failure::lost);
  start("main");

  // The first clients of the new life get the numbers of the earlier ones.
  Connection again = connect("main");
  Owner other(again, "other", creating());
  std::vector<Client> strangers;
  for (int i = 0; i < 4; ++i) strangers.emplace_back(again, "other");
  auto stray = started([&] {
    Packet packet;
    return other.receive(packet, 3s);
  });
  EXPECT_EQ(silent.reply(request.from, "y"), client::failure::lost);
  EXPECT_EQ(asked(client, "after"), "re:after");
  EXPECT_EQ(stray.get(), result::timed_out) << "a packet came to a port that it was not sent to";
  for (Client& stranger : strangers) {
    EXPECT_EQ(stranger.wait_reply(reply, 1s), result::reply_timed_out);
  }
  EXPECT_TRUE(eventually([&] { return main.declare(7, "x").ok(); }));
  EXPECT_TRUE(watched.get());
  EXPECT_EQ(subscription.gaps(), 1u);
  owner.cancel();
  EXPECT_EQ(owned.get(), client::failure::cancelled);
}

TEST_F(ClientLibrary, IsCancelledAlsoInTheLongPausesOfALostServer) {
  Connection main = connect("main");
  client::Box a(main, "a", creating()), b(main, "b", creating());
  client::Box* from = nullptr;
  std::vector<Payload> events;
  auto waiting = started([&] { return take({&a, &b}, from, events, 9); });
  kill("main");
  EXPECT_EQ(waiting.wait_for(4500ms),
            std::future_status::timeout);  // then a pause has seconds left
  b.cancel();
  EXPECT_EQ(waiting.wait_for(2s), std::future_status::ready);
  EXPECT_EQ(waiting.get(), client::failure::cancelled);
}

TEST_F(ClientLibrary, TakesOverFromTheDeadAloneAndEndsWaitsThroughProxies) {
  start("sub1");
  ASSERT_TRUE(sub1_knows_main());
  Connection main = connect("main");
  Connection sub = connect("sub1");
  ASSERT_TRUE(main.create("p", PORT_MASTER, 10));
  const auto former = in_background("main", {"receive", "p"});
  EXPECT_TRUE(
      eventually([&] { return done("main", {"connections"}).find("p ") != std::string::npos; }));
  client::OwnerOptions options;
  options.take_over = true;
  EXPECT_EQ(failure_of([&] { Owner(main, "p", options); }), result::owner_exists);
  former->kill();
  EXPECT_EQ(failure_of([&] { Owner(main, "p"); }), result::owner_exists);
  Owner owner(main, "p", options);

  Client client(sub, "p");
  Payload reply;
  Packet packet;
  auto asking = started([&] { return client.ask("x", reply, forever); });
  ASSERT_TRUE(owner.receive(packet, 10s));
  expect_cancelled([&] { return asking.get(); }, [&] { client.cancel(); });
  EXPECT_TRUE(owner.reply(packet.from, "nobody hears it"));  // and ends the wait at the server
  auto owned = answering(owner);
  Client next(sub, "p");
  EXPECT_EQ(asked(next, "y"), "re:y");
  owner.cancel();
  EXPECT_EQ(owned.get(), client::failure::cancelled);
}

}  // namespace
}  // namespace portsvc
