// How servers and portctl find each other.
#include <fmt/format.h>
#include <signal.h>

#include <filesystem>

#include "tests/system/system_test.h"

namespace portsvc {
namespace {

using DirectoryOfServers = SystemTest;

TEST_F(DirectoryOfServers, AFileThatCannotBeReadIsRefusedWithItsFault) {
  const std::string file = folder.path("broken.ini");
  const std::string entry = directory_entry("a", "main", corbaloc("main"));
  const auto expect = [&](const std::string& fault) {
    const auto [status, out, err] =
        ended_server(server_words("sub", "s", free_port(), folder.path()) +
                     Words{"--main", "a", "--directory", file});
    EXPECT_EQ(status, 1);
    EXPECT_THAT(err, HasSubstr(fault));
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    directory[1] = file;
    EXPECT_EQ(portctl("a", {"ping"}).status, 2) << "portctl with " << fault;
  };
  expect("cannot open file");
  for (const auto& [content, fault] : std::map<std::string, std::string>{
           {entry + "what is this", "line 4"},
           {entry + entry, "line 4: duplicate section name"},
           {directory_entry("a", "boss", corbaloc("main")), "wanted: main or slave"},
           {"[a]\nrole = main\n", "no reference"},
           {directory_entry("a", "main", "nonsense"), "neither a corbaloc nor an IOR"},
           {directory_entry("a", "main", "IOR:0"), "no reference"},
           {entry + "port = 9700\n", "unknown key 'port'"}}) {
    write_all(file, content);
    expect(fault);
  }
}

TEST_F(DirectoryOfServers, AnEntryThatIsChangedIsFollowedAndAFileThatIsBrokenIsSaid) {
  start("main");
  start("sub1");
  ASSERT_TRUE(eventually([&] { return portctl("sub1", {"master", "p"}).status == 1; }));
  const int at = free_port();
  Process other(Words{PORT_SERVER} + server_words("main", "other", at, folder.path()),
                folder.path("others"));
  const std::string reference = fmt::format("corbaloc:iiop:127.0.0.1:{}/{}", at, object_key);
  write_all(directory[1], "[main\n" + read_all(directory[1]));
  ASSERT_TRUE(eventually([&] { return times_said("sub1", "line 1") > 0; }))
      << process("sub1").err();
  EXPECT_EQ(server("sub1")->exist("nobody"), static_cast<int>(result::unknown_name));
  EXPECT_EQ(times_said("sub1", "line 1"), 1) << process("sub1").err();

  point_main_at(reference);
  ASSERT_TRUE(eventually([&] {
    return portctl("main", {"create", "there"}).status == 0 &&
           portctl("sub1", {"exists", "there"}).status == 0;
  })) << "the old main server is still up";
  EXPECT_TRUE(process("main").running());
}

TEST_F(DirectoryOfServers, ServersMeetInANamingServiceAlsoWhenItComesLast) {
  const int at = free_port();
  directory = {"--naming", fmt::format("corbaloc::127.0.0.1:{}/NameService", at)};
  start("main", {"--call-timeout", "1"});
  start("sub1", {"--call-timeout", "1"});
  EXPECT_EQ(portctl("main", {"ping"}).status, 3) << "nobody can be found yet";

  const auto start_naming = [&](const std::string& data) {
    std::filesystem::create_directory(folder.path(data));
    return std::make_unique<Process>(naming_words(at, folder.path(data)), folder.path("naming"));
  };
  auto naming = start_naming("first");
  ASSERT_TRUE(eventually([&] { return portctl("main", {"create", "p"}).status == 0; }));
  ASSERT_TRUE(eventually([&] { return portctl("sub1", {"exists", "p"}).status == 0; }));
  expect_exchange("p", "main", "sub1");
  EXPECT_EQ(done("main", {"subs"}), "sub1\n");
  EXPECT_THAT(done("main", {"ls", "--all"}), HasSubstr("NAME  main"));

  EXPECT_EQ(stop("main", SIGTERM), 0);
  const Outcome gone = portctl("main", {"ping"});
  EXPECT_EQ(gone.status, 3);
  EXPECT_THAT(gone.err, HasSubstr("lists no server 'main'"));
  start("main");
  done("main", {"create", "q"});
  ASSERT_TRUE(eventually([&] { return portctl("sub1", {"exists", "q"}).status == 0; }));

  naming->kill();
  naming = start_naming("second");  // which has lost its data
  EXPECT_TRUE(eventually([&] { return portctl("main", {"ping"}).status == 0; }));
  EXPECT_TRUE(eventually([&] { return portctl("main", {"subs"}).out == "sub1\n"; }));
}

}  // namespace
}  // namespace portsvc
