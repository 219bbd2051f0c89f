// A main server's event data on its way to sub servers that are frozen or gone. What is forwarded
// into a box comes from inside the server, so the main server is this process; the sub servers are
// processes of their own.
#include <fmt/format.h>
#include <signal.h>

#include "middleware/directory.h"
#include "platform/process.h"
#include "ports/port_impl.h"
#include "roles/port_factory_main.h"
#include "tests/support/test_clock.h"
#include "tests/system/system_test.h"

namespace portsvc {
namespace {

using std::chrono::steady_clock;

class MainServer : public Port_Factory_Main {
 public:
  MainServer() : Port_Factory_Main("main") {}
  using Port_Factory_Main::get_port;
};

class Forwarding : public SystemTest {
 protected:
  Forwarding() {
    orb::Broker& broker = this->broker(fmt::format("giop:tcp:127.0.0.1:{}", port("main")));
    set_state_folder(folder.path("main"));
    use_directory(open_file_directory(broker, directory[1]), "");
    main_ = new MainServer;
    broker.serve(main_.in());
    for (const char* box : {"a", "b"}) {
      EXPECT_EQ(main_->create_port(box, PORT_EVENTBOX, 10000), result::ok);
      EXPECT_EQ(main_->sendEvcDatatoSlave(box, 1), result::ok);
    }
    start("sub1");
    start("sub2");
  }
  ~Forwarding() override {
    for (const char* sub : {"sub1", "sub2"}) process(sub).signal(SIGCONT);  // lets the calls end
    EXPECT_TRUE(broker().shutdown(10s));
    main_ = nullptr;
    use_directory(nullptr, "");
    orb::set_peer_call_timeout(5s);
  }

  /// Forwards `count` packets into a box, none of which may wait for a sub server.
  void forward(const char* box, unsigned int count = 1) {
    const auto port = main_->get_port(box);
    ASSERT_TRUE(port);
    const auto begin = steady_clock::now();
    for (unsigned int i = 0; i < count; ++i) {
      ++forwarded_;
      EXPECT_EQ(port->forward(forwarded_, buffer(std::to_string(forwarded_)), 0), result::ok);
    }
    EXPECT_LT(since(begin), 1s) << "far below the time-out of a call to a sub server";
  }

  unsigned int stored(const char* box) {
    CORBA::ULong count = 0;
    EXPECT_EQ(main_->event_count(box, count), result::ok);
    return count;
  }
  unsigned int arrived(const std::string& sub, const char* box) {
    CORBA::ULong count = 0;
    EXPECT_EQ(server(sub)->event_count(box, count), result::ok);
    return count;
  }
  void expect_to_arrive(const std::string& sub, const char* box, unsigned int count) {
    EXPECT_TRUE(eventually([&] { return arrived(sub, box) >= count; }))
        << arrived(sub, box) << " of " << count << " in " << box << " at " << sub;
    EXPECT_EQ(arrived(sub, box), count) << box << " at " << sub;
  }

 private:
  const TestClock clock_;  // the sending threads' idle pause takes a millisecond
  PortableServer::Servant_var<MainServer> main_;
  unsigned int forwarded_ = 0;
};

TEST_F(Forwarding, AFrozenSubServerHoldsBackItsOwnCopiesOnly) {
  orb::set_peer_call_timeout(60s);
  forward("a", 3);
  for (const char* sub : {"sub1", "sub2"}) expect_to_arrive(sub, "a", 3);

  process("sub2").signal(SIGSTOP);
  forward("a");
  expect_to_arrive("sub1", "a", 4);
  // The thread of "a" now waits for sub2. Nothing else does.
  forward("b");
  expect_to_arrive("sub1", "b", 1);
  forward("a", 1500);
  EXPECT_EQ(stored("a"), 1504U);
  EXPECT_EQ(stored("b"), 1U);
  EXPECT_EQ(arrived("sub1", "a"), 4U) << "copies of one box do not overtake one another";

  process("sub2").signal(SIGCONT);
  for (const char* sub : {"sub1", "sub2"}) {
    expect_to_arrive(sub, "a", 1504);
    expect_to_arrive(sub, "b", 1);
  }
}

TEST_F(Forwarding, ASubServerThatIsGoneHoldsUpNobodyAndIsServedAgainWhenItIsBack) {
  kill("sub2");
  forward("a");
  forward("b");
  expect_to_arrive("sub1", "a", 1);
  expect_to_arrive("sub1", "b", 1);
  forward("a", 20);
  EXPECT_EQ(stored("a"), 21U);
  start("sub2");
  EXPECT_EQ(arrived("sub2", "a"), 0U) << "nothing is sent twice";
  EXPECT_TRUE(eventually([&] {
    forward("a");
    return arrived("sub2", "a") > 0;
  }));
}

}  // namespace
}  // namespace portsvc
