// portctl between a server and the user's pipes, files and commands.
#include <cstdlib>

#include "tests/system/system_test.h"

namespace portsvc {
namespace {

class PortctlSystem : public SystemTest {
 protected:
  void SetUp() override { start("main"); }

  // Runs a shell line in the test's folder in which $portctl is portctl on the server.
  int shell(const std::string& line) {
    const std::string at = std::string(PORTCTL) + " --server " + corbaloc("main");
    return std::system(("cd '" + folder.path() + "'; portctl='" + at + "'; " + line).c_str());
  }
  std::string events(const std::string& box) { return done("main", {"event", "count", box}); }
  bool owned() {
    return eventually([&] { return info_of(server("main"), "p").owner_connected != 0; });
  }
};

TEST_F(PortctlSystem, NeverTakesWhatItCannotShow) {
  done("main", {"create", "box", "--kind", "box"});
  for (const char* event : {"one", "two", "three", "four"}) {
    done("main", {"event", "put", "box", event});
  }
  (void)shell("timeout 20 $portctl event watch box | (read -r line; sleep 0.3)");
  EXPECT_EQ(events("box"), "3\n") << "what was not read is still there";
  (void)shell("timeout 20 $portctl event watch box --drain > /dev/full 2> problem");
  EXPECT_EQ(events("box"), "3\n") << "a full disk takes nothing";
  done("main", {"event", "clear", "box"});

  // Its reader goes while it waits: it ends, and what comes then is nobody's.
  const auto start = steady_clock::now();
  (void)shell("timeout 20 $portctl event watch box | sleep 0.5");
  EXPECT_LT(since(start), 10s);
  done("main", {"event", "put", "box", "late"});
  EXPECT_EQ(events("box"), "1\n");
}

TEST_F(PortctlSystem, WritesDevicesPipesAndLinksAndReplacesNone) {
  EXPECT_EQ(shell("ln -s target link; mkfifo pipe; cat pipe > piped & "
                  "$portctl snapshot download link && $portctl snapshot download pipe && wait && "
                  "$portctl snapshot download - > shown && "
                  "cmp target piped && cmp target shown && test -L link && test -p pipe"),
            0);
  EXPECT_NE(portctl("main", {"snapshot", "download", "/dev/full"}).status, 0);

  std::filesystem::create_directory(folder.path("state"));
  std::filesystem::create_symlink("reference", folder.path("ior"));
  const Process other({PORT_SERVER, "main", "--name", "other", "--endpoint", "giop:tcp:127.0.0.1:0",
                       "--state-dir", folder.path("state"), "--ior-file", folder.path("ior")},
                      folder.path("other"));
  EXPECT_TRUE(eventually([&] { return std::filesystem::exists(folder.path("reference")); }));
  EXPECT_TRUE(std::filesystem::is_symlink(folder.path("ior")));
}

TEST_F(PortctlSystem, ServesWithFailuresTakesOverAndComesBack) {
  done("main", {"create", "p"});
  auto serve = in_background("main", {"serve", "p", "--exec", "cat; exit 3", "--count", "1"});
  ASSERT_TRUE(owned());
  EXPECT_EQ(portctl("main", {"send", "p", "x", "--wait", "--timeout", "1"}).status, 1);
  EXPECT_EQ(outcome(*serve).status, 1) << "the status tells";

  serve = in_background("main", {"serve", "p", "--exec", "cat"});
  ASSERT_TRUE(owned());
  EXPECT_EQ(done("main", {"send", "p", "x", "--wait"}), "x");
  EXPECT_EQ(portctl("main", {"receive", "p", "--take-over"}).status, 1) << "the owner lives";
  EXPECT_EQ(portctl("main", {"release", "p"}).status, 1);
  serve->kill();
  serve = in_background("main", {"serve", "p", "--exec", "tr a-z A-Z", "--take-over"});
  EXPECT_EQ(done("main", {"send", "p", "x", "--wait"}), "X");

  kill("main");
  start("main");
  done("main", {"create", "p"});
  EXPECT_EQ(done("main", {"send", "p", "y", "--wait", "--timeout", "20"}), "Y");
  done("main", {"release", "p", "--force"});
  EXPECT_EQ(outcome(*serve).status, 1) << "it would wait for nothing";
}

TEST_F(PortctlSystem, RefusesWhatWouldDoHarm) {
  done("main", {"create", "p", "--limit", "010"});
  EXPECT_EQ(info_of(server("main"), "p").limit, 10U) << "numbers are decimal";
  EXPECT_EQ(portctl("main", {"create", "q", "--limit", "0x10"}).status, 2);
  EXPECT_EQ(portctl("main", {"create", "q", "--limit", "0"}).status, 2);
  EXPECT_EQ(portctl("main", {"create", ""}).status, 2);
  EXPECT_EQ(portctl("main", {"create", "p", "--kind", "box"}).status, 1);
  EXPECT_EQ(portctl("main", {"move", "p", "--to", "nowhere"}).status, 1);
  done("main", {"create", "box", "--kind", "box"});
  done("main", {"event", "subscribe", "box", "-5"});
  EXPECT_THAT(done("main", {"event", "subscriptions"}), HasSubstr("-5    box"));
}

// Whoever reads the message must know what to do, and a script what to make of the status.
TEST_F(PortctlSystem, TellsRefusalMisuseAndSilenceApartAndWhatToDo) {
  done("main", {"create", "p"});
  const auto expect = [&](int status, const std::string& why, const Words& command,
                          const std::string& at = "main") {
    expect_failure(portctl(at, Words{"--call-timeout", "1"} + command), status, why);
  };
  expect(1, "2001 unknown_name", {"send", "nobody", "x"});
  expect(1, "2007 unknown_handle", {"send", "p", "x", "--no-block"});
  expect(1, "2017 send_timed_out", {"send", "p", "x", "--timeout", "1"});
  expect(2, "no command 'ask'", {"ask", "p"});
  expect(2, "NAME is required", {"send"});
  expect(2, "is no reference", {"ping"}, "corbaloc:nonsense");
  expect(3, "connection refused", {"ls"}, "127.0.0.1:" + std::to_string(free_port()));
  expect(3, "the host name 'nowhere.invalid' is unknown", {"ls"}, "nowhere.invalid:9700");
  expect(3, "lists no server 'line7'; it lists main, sub1, sub2", {"ls"}, "line7");
  process("main").signal(SIGSTOP);
  expect(3, "no answer within", {"ls"});
  process("main").signal(SIGCONT);
}

TEST_F(PortctlSystem, CompletesCommandsOptionsAndPorts) {
  done("main", {"create", "port one"});
  done("main", {"create", "box", "--kind", "box"});
  // As bash asks, with the cursor after the last word.
  const auto offered = [&](const Words& words) {
    const Words command{"bash", "-c",
                        ". " COMPLETION "; export PORTSVC_SERVER=" + corbaloc("main") +
                            "; COMP_WORDS=(" PORTCTL
                            " \"$@\"); COMP_CWORD=$#; _portctl; "
                            "printf '%s;' \"${COMPREPLY[@]}\"",
                        "bash"};
    return ran(command + words).out;
  };
  EXPECT_EQ(offered({"sna"}), "snapshot;");
  EXPECT_EQ(offered({"event", "c"}), "count;clear;copy;");
  EXPECT_EQ(offered({"--json", "send", ""}), "port\\ one;");
  EXPECT_EQ(offered({"event", "count", "b"}), "box;");
  EXPECT_EQ(offered({"serve", "p", "--on-error", ""}), "drop;reply;stop;");
  EXPECT_EQ(offered({"receive", "p", "--no"}), ";") << "that is an option of serve";
  EXPECT_EQ(offered({"rm", "--server", "127.0.0.1:1", ""}), ";") << "nobody answers there";
}

}  // namespace
}  // namespace portsvc
