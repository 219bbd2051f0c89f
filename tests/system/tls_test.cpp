// Servers and clients that talk over TLS, and those that may not.
#include <fmt/format.h>

#include "tests/system/system_test.h"

namespace portsvc {
namespace {

class TlsOnly : public SystemTest {
 protected:
  void SetUp() override {
    NEEDS_OMNIORB();
    make_authority("plant");
    make_key("own", "plant");
    use_tls({folder.path("plant.pem"), folder.path("own.pem")});
  }

  void openssl(const std::string& arguments) {
    Process process({"sh", "-c", "cd " + folder.path("") + " && openssl " + arguments},
                    folder.path("openssl"));
    EXPECT_EQ(process.wait(20s).value_or(-1), 0) << arguments << ": " << process.err();
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
  start("main");
  start("sub1");
  done("main", {"create", "p"});
  const auto owner = in_background("main", {"serve", "p", "--count", "1", "--exec", "tr a-z A-Z"});
  EXPECT_EQ(done("sub1", {"send", "p", "hello", "--wait"}), "HELLO");
  EXPECT_EQ(outcome(*owner).status, 0) << owner->err();

  const Port_Factory_var main = server("main");
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
    Process client(Words{PORTCTL, "--server", corbaloc("main"), "--call-timeout", "3"} + tls +
                       Words{"create", "p"},
                   folder.path("refused"));
    EXPECT_EQ(outcome(client, 10s).status, 3) << client.err();
    EXPECT_THAT(client.err(), HasSubstr("--tls-ca"));
  };
  const std::string plant = folder.path("plant.pem");
  const std::string stranger = folder.path("stranger.pem");
  write_all(folder.path("mixed.pem"),
            read_all(folder.path("own.crt")) + read_all(folder.path("stranger.key")));
  Process mixed({PORTCTL, "--tls-ca", plant, "--tls-key", folder.path("mixed.pem"), "ls"},
                folder.path("mixed"));
  EXPECT_EQ(outcome(mixed, 10s).status, 2);
  EXPECT_THAT(mixed.err(), HasSubstr("not the certificate's"));
  refused({});
  refused({"--tls-ca", plant, "--tls-key", stranger});
  refused({"--tls-ca", folder.path("strangers.pem"), "--tls-key", folder.path("own.pem")});
  const RawConnection raw(port("main"));
  raw.send("GIOP plain text");
  EXPECT_TRUE(raw.closed_by_peer(10s));
  EXPECT_EQ(portctl("main", {"exists", "p"}).status, 1) << "a stranger has made it";
  EXPECT_GT(times_said("main", "tls: refused "), 0) << process("main").err();

  // What SIGHUP makes it read again holds for connections made from then on.
  for (const char* name : {"plant", "own"}) {
    write_all(folder.path(std::string("old_") + name),
              read_all(folder.path(name + std::string(".pem"))));
  }
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
