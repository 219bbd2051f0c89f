// What is no sensible input: bytes on the socket, options, addresses.
#include <fmt/format.h>

#include "tests/system/system_test.h"

namespace portsvc {
namespace {

using BrokenInput = SystemTest;

// The header of a message whose body is `size` bytes long, little-endian.
std::string header(unsigned char type, std::uint32_t size) {
  std::string bytes = {'G', 'I', 'O', 'P', 1, 2, 1, static_cast<char>(type)};
  for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(size >> shift);
  return bytes;
}

TEST_F(BrokenInput, GarbageOnTheSocketEndsItsConnectionAndNothingElse) {
  start("main");
  const Words garbage{
      "GET / HTTP/1.1\r\nHost: nobody\r\n\r\n",
      std::string(10000, '\xee'),
      header(0, 0xFFFFFFFF) + "larger than any message may be",
      header(0, 100) + std::string(100, '\xff'),
      header(17, 4) + "kind",
  };
  for (const std::string& bytes : garbage) {
    const RawConnection raw(port("main"));
    raw.send(bytes);
    EXPECT_TRUE(raw.closed_by_peer(5s)) << bytes.substr(0, 12);
  }
  EXPECT_GT(times_said("main", "client: damaged message"), 0);
  // A message that does not end keeps its connection for a while, and nothing else.
  const RawConnection half(port("main"));
  half.send(header(0, 4000).substr(0, 7));
  const RawConnection almost(port("main"));
  almost.send(header(0, 4000) + std::string(3000, '\0'));
  done("main", {"create", "p"});
  done("main", {"exists", "p"});
  { const RawConnection silent(port("main")); }
  done("main", {"exists", "p"});
}

TEST_F(BrokenInput, MessagesThatStopHalfWayCostTheirConnectionOnly) {
  start("main", {"--message-timeout", "2"});
  const Port_Factory_var main = server("main");
  create(main, {"box"}, PORT_EVENTBOX);
  create(main, {"p"});
  EXPECT_EQ(main->send_event("box", wire(std::string(16U << 20, 'x'))), result::ok);
  const unsigned int id = info_of(main, "box").port_id;
  const int sockets = process("main").sockets();

  const RawConnection half(port("main"));
  std::string longer = request("packet_receive", {id, 1});
  longer.replace(8, 4, std::string("\0\0\x10\0", 4));
  half.send(longer + std::string(200000, '\0'));
  EXPECT_TRUE(half.closed_by_peer(10s)) << "a request that stops half-way";

  const RawConnection idle(port("main"));
  const RawConnection deaf(port("main"));
  deaf.send(request("packet_receive", {id, 1}));
  ASSERT_TRUE(eventually([&] { return event_count(main, "box") == 0; }))
      << "the request was not understood";
  const unsigned int owner = connected(main, "p", CONNECT_OWNER);
  EXPECT_EQ(std::get<0>(receive(main, owner, 3)), result::timed_out) << "a wait is no message";
  EXPECT_TRUE(eventually([&] { return process("main").sockets() == sockets + 1; }))
      << "a reply that nobody takes; a client that is silent stays";
  EXPECT_FALSE(idle.closed_by_peer(100ms));
}

TEST_F(BrokenInput, AServerThatCannotStartSaysWhyInOneLine) {
  start("main");
  done("main", {"create", "kept"});
  done("main", {"snapshot", "save"});
  const std::string snapshot = read_all(folder.path("main/SnapShot/portsnap.snp"));
  write_all(folder.path("file"), "");
  const auto expect = [&](int status, const std::string& why, const Words& arguments) {
    const auto [ended, out, err] = ended_server(arguments);
    EXPECT_EQ(ended, status) << fmt::format("{}", fmt::join(arguments, " "));
    EXPECT_EQ(err.rfind("port_server: ", 0), 0u) << err;
    EXPECT_THAT(err, HasSubstr(why));
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    EXPECT_EQ(out, "");
  };
  const std::string free = "giop:tcp:127.0.0.1:0";
  const auto main_with = [&](const std::string& endpoint, const Words& more) {
    return Words{"main",        "--name",           "m", "--endpoint", endpoint,
                 "--state-dir", folder.path("main")} +
           more;
  };
  expect(2, "subcommand", {});
  expect(2, "--name is required", {"main"});
  expect(2, "--main is required", {"sub", "--name", "s"});
  expect(2, "--bogus", main_with(free, {"--bogus"}));
  expect(2, "--call-timeout", main_with(free, {"--call-timeout", "0"}));
  expect(2, "excludes", main_with(free, {"--directory", "d", "--naming", "n"}));
  expect(2, "--tls-ca requires --tls-key", main_with(free, {"--tls-ca", "ca"}));
  expect(1, "cannot read", main_with(free, {"--tls-ca", "/nowhere", "--tls-key", "/nowhere"}));
  expect(1, "no CERTIFICATE in",
         main_with(free, {"--tls-ca", folder.path("file"), "--tls-key", folder.path("file")}));
  expect(1, "needs a certificate", main_with("giop:ssl:127.0.0.1:0", {}));
  expect(1, "is in use", main_with(fmt::format("giop:tcp:127.0.0.1:{}", port("main")), {}));
  expect(1, "no reference", main_with(free, {"--naming", "nonsense"}));
  expect(1, "cannot make the folder",
         {"main", "--name", "m", "--endpoint", free, "--state-dir", folder.path("file/state")});
  expect(1, "cannot write",
         {"main", "--name", "m", "--endpoint", free, "--state-dir", folder.path("m"), "--ior-file",
          folder.path("nowhere/ior")});
  EXPECT_EQ(read_all(folder.path("main/SnapShot/portsnap.snp")), snapshot)
      << "what was refused must not touch the files of the server that runs";
}

}  // namespace
}  // namespace portsvc
