// What is turned away: bytes on the socket, options and addresses that make no sense, and
// strangers.
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
  const Port_Factory_var main = serving("main", {"--message-timeout", "2"});
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
    const Outcome ended = ended_server(arguments);
    expect_failure(ended, status, why);
    EXPECT_EQ(ended.err.rfind("port_server: ", 0), 0u) << ended.err;
  };
  const std::string free = "giop:tcp:127.0.0.1:0";
  const auto main_with = [&](const std::string& endpoint, const Words& more,
                             const std::string& state = "main") {
    const Words words{"main", "--name", "m", "--endpoint", endpoint, "--state-dir"};
    return words + Words{folder.path(state)} + more;
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
  expect(1, "cannot make the folder", main_with(free, {}, "file/state"));
  expect(1, "cannot write", main_with(free, {"--ior-file", folder.path("nowhere/ior")}, "m"));
  const Words sub = server_words("sub", "sub1", port("sub1"), folder.path()) + directory;
  expect(2, "cannot be its own main server", sub + Words{"--main", "sub1"});
  point_main_at(corbaloc("sub1"));
  const Outcome itself = ended_server(sub + Words{"--main", "main"});  // it has looked for ports
  EXPECT_EQ(itself.status, 1);
  EXPECT_THAT(itself.err, HasSubstr("is this server"));
  EXPECT_EQ(read_all(folder.path("main/SnapShot/portsnap.snp")), snapshot)
      << "what was refused must not touch the files of the server that runs";
}

class TlsOnly : public SystemTest {
 protected:
  void SetUp() override {
    NEEDS_OMNIORB();
    make_authority("plant");
    make_key("own", "plant");
    use_tls({folder.path("plant.pem"), folder.path("own.pem")});
  }

  void openssl(const std::string& arguments) {
    const Outcome ended = ran({"sh", "-c", "cd " + folder.path("") + " && openssl " + arguments});
    EXPECT_EQ(ended.status, 0) << arguments << ": " << ended.err;
  }
  void make_authority(const std::string& name) {
    openssl(fmt::format("req -x509 {0} -keyout {1}.key -out {1}.pem -days 2 -subj /CN={1}", new_key,
                        name));
  }
  void make_key(const std::string& name, const std::string& authority) {
    openssl(fmt::format("req {0} -keyout {1}.key -out {1}.csr -subj /CN={1}", new_key, name));
    openssl(
        fmt::format("x509 -req -in {0}.csr -CA {1}.pem -CAkey {1}.key -CAcreateserial -days 2 "
                    "-out {0}.crt",
                    name, authority));
    write_all(folder.path(name + ".pem"),
              read_all(folder.path(name + ".crt")) + read_all(folder.path(name + ".key")));
  }

 private:
  static constexpr const char* new_key = "-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes";
};

TEST_F(TlsOnly, ServersAndClientsWithCertificatesOfOneAuthorityServeEachOther) {
  const Port_Factory_var main = serving("main");
  start("sub1");
  done("main", {"create", "p"});
  const auto owner = in_background("main", {"serve", "p", "--count", "1", "--exec", "tr a-z A-Z"});
  EXPECT_EQ(done("sub1", {"send", "p", "hello", "--wait"}), "HELLO");
  EXPECT_EQ(outcome(*owner).status, 0) << owner->err();

  const std::string large(5U << 20, 'x');
  create(main, {"q"}, PORT_EVENTBOX);
  EXPECT_EQ(main->send_event("q", wire(large)), result::ok);
  const auto [code, source, data] = receive(main, connected(main, "q", CONNECT_OWNER), 1);
  EXPECT_EQ(code, result::ok);
  EXPECT_TRUE(data == large);
  EXPECT_EQ(stop("main", SIGTERM), 0);
}

TEST_F(TlsOnly, OthersAreTurnedAwayAndServedNothing) {
  start("main");
  make_authority("strangers");
  make_key("stranger", "strangers");
  const auto refused = [&](const Words& tls) {
    const Words client{PORTCTL, "--server", corbaloc("main"), "--call-timeout", "3"};
    expect_failure(ran(client + tls + Words{"create", "p"}), 3, "--tls-ca");
  };
  const std::string plant = folder.path("plant.pem");
  const std::string stranger = folder.path("stranger.pem");
  write_all(folder.path("mixed.pem"),
            read_all(folder.path("own.crt")) + read_all(folder.path("stranger.key")));
  expect_failure(ran({PORTCTL, "--tls-ca", plant, "--tls-key", folder.path("mixed.pem"), "ls"}), 2,
                 "not the certificate's");
  refused({});
  refused({"--tls-ca", plant, "--tls-key", stranger});
  refused({"--tls-ca", folder.path("strangers.pem"), "--tls-key", folder.path("own.pem")});
  const RawConnection raw(port("main"));
  raw.send("GIOP plain text");
  EXPECT_TRUE(raw.closed_by_peer(10s));
  EXPECT_EQ(portctl("main", {"exists", "p"}).status, 1) << "a stranger has made it";
  EXPECT_GT(times_said("main", "tls: refused "), 0) << process("main").err();

  // What SIGHUP makes it read again holds for connections made from then on.
  std::filesystem::copy(plant, folder.path("old_plant"));
  std::filesystem::copy(folder.path("own.pem"), folder.path("old_own"));
  write_all(plant, read_all(folder.path("strangers.pem")));
  process("main").signal(SIGHUP);
  EXPECT_TRUE(eventually([&] { return times_said("main", "reloaded") == 1; }));
  refused({"--tls-ca", folder.path("old_plant"), "--tls-key", folder.path("old_own")});
  write_all(folder.path("own.pem"), read_all(stranger));
  process("main").signal(SIGHUP);
  EXPECT_TRUE(eventually([&] { return times_said("main", "reloaded") == 2; }));
  EXPECT_EQ(done("main", {"create", "p"}), "");
  write_all(folder.path("own.pem"), "no key");
  process("main").signal(SIGHUP);
  EXPECT_TRUE(eventually([&] { return times_said("main", "the certificates stay: ") == 1; }));
  write_all(folder.path("own.pem"), read_all(stranger));
  done("main", {"exists", "p"});
}

}  // namespace
}  // namespace portsvc
