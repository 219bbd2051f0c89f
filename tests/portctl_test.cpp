// The pieces of portctl that need no server: its command filter, its input and output, the texts
// that name a server, and interruptions.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cli/help.h"
#include "server/options.h"
#include "tools/command_line.h"
#include "tools/errors.h"
#include "tools/input.h"
#include "tools/interrupt.h"
#include "tools/interrupt_watch.h"
#include "tools/message_limit.h"
#include "tools/output.h"
#include "tools/progress.h"
#include "tools/session.h"
#include "tools/shell_command.h"

namespace portsvc::tools {
namespace {

// More than the pipes in both directions hold together.
constexpr std::size_t large = 3 << 20;

std::string all_bytes(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 31 + i / 251);
  return bytes;
}

class Portctl : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { catch_interrupts(); }
};

using PortctlCommand = Portctl;

TEST_F(PortctlCommand, GetsAndGivesBytesUnchanged) {
  EXPECT_EQ(run_shell_command("tr a-z A-Z", "hello").output, "HELLO");
  EXPECT_EQ(run_shell_command("cat", "").output, "");
  const std::string bytes = all_bytes(large);
  EXPECT_TRUE(run_shell_command("cat", bytes).output == bytes);
}

TEST_F(PortctlCommand, MayReadNothingAndPrintMoreThanItReads) {
  const CommandResult done = run_shell_command("exec <&-; echo done; exit 3", all_bytes(large));
  EXPECT_EQ(done.output, "done\n");
  EXPECT_EQ(done.status, 3);
  EXPECT_EQ(run_shell_command("echo early; sleep 0.2", all_bytes(large)).output, "early\n");
  const CommandResult more = run_shell_command("head -c 3000000 /dev/zero; cat", all_bytes(large));
  EXPECT_EQ(more.output.size(), 3000000 + large);
}

TEST_F(PortctlCommand, SeesClosedPipesAndReportsSignals) {
  // `yes` ends by SIGPIPE; with that signal ignored the pipeline would never end.
  EXPECT_EQ(run_shell_command("yes | head -n 1", "").output, "y\n");
  EXPECT_EQ(run_shell_command("kill -TERM $$", "").status, 128 + SIGTERM);
}

TEST(PortctlServer, IsAReferenceAnAddressOrAName) {
  for (const char* reference : {"corbaloc:iiop:h:1/PortService", "IOR:0100", "corbaname::h#a"}) {
    EXPECT_EQ(orb::reference_text(reference), reference);
  }
  EXPECT_EQ(orb::reference_text("plant1.local:9700"),
            "corbaloc:iiop:plant1.local:9700/PortService");
  EXPECT_EQ(orb::reference_text("h:9700", true), "corbaloc:ssliop:h:9700/PortService");
  EXPECT_EQ(orb::reference_text("[::1]:9700"), "corbaloc:iiop:[::1]:9700/PortService");
  for (const char* name : {"plant1", "plant:one", "a:b:9700", ":9700", "plant:", ""}) {
    EXPECT_EQ(orb::reference_text(name), std::nullopt) << name;
  }
}

TEST(PortctlOutput, ShowsPayloadsInJsonWithoutLoss) {
  EXPECT_EQ(payload_json("gr\xc3\xbc\xc3\x9f\n").dump(), R"({"size":7,"text":"grüß\n"})");
  EXPECT_EQ(payload_json("").dump(), R"({"size":0,"text":""})");
  EXPECT_EQ(payload_json("\xff").dump(), R"({"size":1,"base64":"/w=="})");
  EXPECT_EQ(payload_json("\xff\xfe").dump(), R"({"size":2,"base64":"//4="})");
  EXPECT_EQ(payload_json("\xff\xfe\xfd").dump(), R"({"size":3,"base64":"//79"})");
}

TEST(PortctlOutput, KeepsNamesOnOneLineOfTheTerminal) {
  EXPECT_EQ(printable("a\nb\x1b[2J"), "a\\x0ab\\x1b[2J");
  EXPECT_EQ(printable("größe"), "größe");
  EXPECT_EQ(printable(""), "\"\"");
}

TEST(PortctlOutput, TellsHowFarATransferHasComeAndHowLongItStillTakes) {
  using Seconds = std::chrono::duration<double>;
  EXPECT_EQ(progress_text(5 << 20, 20 << 20, Seconds(2), "bytes"),
            "5.0 MiB of 20.0 MiB  25 %  2.5 MiB/s  0:06 left");
  EXPECT_EQ(progress_text(100, 720100, Seconds(1), "lines"),
            "100 lines of 720100 lines  0 %  100 lines/s  2:00:00 left");
  EXPECT_EQ(progress_text(0, 9, Seconds(3), "ports"), "0 ports of 9 ports  0 %  0 ports/s");
  // A transfer without an end that is known, or one that has grown past it.
  EXPECT_EQ(progress_text(2048, std::nullopt, Seconds(2), "bytes"), "2.0 KiB  1.0 KiB/s");
  EXPECT_EQ(progress_text(12, 10, Seconds(2), "events"), "12 events  6 events/s");
}

TEST(PortctlSend, FeelsForTheLargestPayloadThatAServerTakes) {
  for (const std::size_t limit : {5000U, 1000000U, 2999999U}) {
    const auto felt = feel_for_limit(3000000, [&](std::size_t size) { return size <= limit; });
    ASSERT_TRUE(felt);
    EXPECT_LE(felt->first, limit);
    EXPECT_GT(felt->second, limit);
    EXPECT_LE(felt->second - felt->first, limit / 50);
  }
  EXPECT_FALSE(feel_for_limit(3000000, [](std::size_t) { return true; })) << "no matter of size";
  EXPECT_FALSE(feel_for_limit(3000000, [](std::size_t) { return false; })) << "the server is gone";
}

// Both programs with what is told about them. Every option must be found there.
TEST(CommandLines, AreToldIn80ColumnsAndWholeInTheManual) {
  GlobalOptions of_portctl;
  CLI::App portctl;
  Commands commands{portctl, {}};
  describe_portctl(commands, of_portctl);
  server::Options of_server;
  CLI::App port_server;
  server::describe(port_server, of_server);
  for (const CLI::App* program : {&portctl, &port_server}) {
    const std::string page = cli::manual_page(*program, {1, "x", {}, {}}, "1", "2");
    EXPECT_EQ(page.find("\n'"), std::string::npos) << "a request by accident";
    std::vector<const CLI::App*> all{program};
    for (std::size_t i = 0; i < all.size(); ++i) {
      std::istringstream help(all[i]->help(all[i]->get_name()));
      for (std::string line; std::getline(help, line);) EXPECT_LE(line.size(), 80U) << line;
      for (const CLI::Option* option : all[i]->get_options()) {
        if (option->get_group().empty() || option->check_name("--help")) continue;
        std::string escaped;
        for (const char c : cli::label(*option)) escaped += c == '-' ? "\\-" : std::string(1, c);
        EXPECT_NE(page.find(escaped), std::string::npos) << cli::label(*option);
      }
      for (const CLI::App* command :
           all[i]->get_subcommands([](const CLI::App*) { return true; })) {
        all.push_back(command);
      }
    }
  }
}

TEST_F(Portctl, ReadsLinesAsTheyArrive) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const int saved = ::dup(STDIN_FILENO);
  ::dup2(ends[0], STDIN_FILENO);
  const auto feed = [&](std::string_view text) {
    ASSERT_EQ(::write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  };
  LineReader reader;
  feed("one\n\nthr");
  EXPECT_EQ(reader.next(), "one");
  EXPECT_TRUE(reader.has_line());
  EXPECT_EQ(reader.next(), "");
  EXPECT_EQ(reader.bytes(), 5U) << "what is handed out counts, not what is read";
  EXPECT_FALSE(reader.has_line());
  feed("ee\nrest");
  ::close(ends[1]);
  EXPECT_EQ(reader.next(), "three");
  EXPECT_EQ(reader.next(), "rest");
  EXPECT_EQ(reader.next(), std::nullopt);
  ::dup2(saved, STDIN_FILENO);
  ::close(saved);
  ::close(ends[0]);
}

// The last test: an interruption cannot be taken back.
TEST_F(Portctl, EndsWaitsAndCommandsWhenInterrupted) {
  EXPECT_EXIT(
      {
        std::thread([] {
          std::this_thread::sleep_for(std::chrono::milliseconds(200));
          ::kill(::getpid(), SIGTERM);
        }).detach();
        std::promise<void> told;
        const InterruptWatch watch([&] { told.set_value(); });
        try {
          (void)run_shell_command("sleep 30 | sleep 30", "");
        } catch (const Interrupted&) {
          // Who is blocked in a remote call hears of it from the watch.
          const auto heard = told.get_future().wait_for(std::chrono::seconds(20));
          std::_Exit(heard == std::future_status::ready ? interrupted() : 1);
        }
        std::_Exit(2);
      },
      ::testing::ExitedWithCode(SIGTERM), "");
}

}  // namespace
}  // namespace portsvc::tools
