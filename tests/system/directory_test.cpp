// How servers and portctl find each other, and what they are to each other when all are there.
#include "tests/system/system_test.h"

namespace portsvc {
namespace {

using DirectoryOfServers = SystemTest;

TEST_F(DirectoryOfServers, AFileThatCannotBeReadIsRefusedWithItsFault) {
  const std::string file = folder.path("broken.ini");
  const std::string entry = directory_entry("a", "main", corbaloc("main"));
  const auto expect = [&](const std::string& fault) {
    directory[1] = file;
    const Words sub = server_words("sub", "s", free_port(), folder.path()) + directory;
    expect_failure(ended_server(sub + Words{"--main", "a"}), 1, fault);
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
  expect_failure(portctl("main", {"ping"}), 3, "lists no server 'main'");
  start("main");
  done("main", {"create", "q"});
  ASSERT_TRUE(eventually([&] { return portctl("sub1", {"exists", "q"}).status == 0; }));

  naming->kill();
  naming = start_naming("second");  // which has lost its data
  EXPECT_TRUE(eventually([&] { return portctl("main", {"ping"}).status == 0; }));
  EXPECT_TRUE(eventually([&] { return portctl("main", {"subs"}).out == "sub1\n"; }));
}

class SubServers : public SystemTest {
 protected:
  SubServers() { start("main"); }
};

TEST_F(SubServers, ARequestIsAnsweredWhereverOwnerAndClientAre) {
  const std::vector<std::pair<const char*, const char*>> places{
      {"main", "sub1"}, {"sub1", "main"}, {"sub1", "sub1"}, {"sub1", "sub2"}};
  const auto name = [](std::size_t i) { return fmt::format("p{}", i); };
  for (std::size_t i = 0; i < places.size(); ++i) {
    if (i == 2) start("sub1"), start("sub2");  // they clone two ports now and two when named
    done("main", {"create", name(i)});
  }
  for (std::size_t i = 0; i < places.size(); ++i) {
    const auto [owner_at, client_at] = places[i];
    const auto owner = in_background(
        owner_at, {"serve", name(i), "--count", "1", "--exec", fmt::format("cat; echo @{}", i)});
    EXPECT_EQ(done(client_at, {"send", name(i), "hello", "--wait"}), fmt::format("hello@{}\n", i));
    EXPECT_EQ(outcome(*owner).status, 0) << owner->err();
    EXPECT_EQ(info_of(server("main"), name(i)).owner_connected, 0u);
  }
}

TEST_F(SubServers, OnePictureOfTheInstallationForItsOperator) {
  const Port_Factory_var sub = serving("sub1");
  done("main", {"create", "p", "--limit", "7"});
  EXPECT_EQ(portctl("main", {"master", "p"}).status, 1) << "nobody has said who keeps it";
  done("main", {"move", "q", "--to", "sub1"});
  EXPECT_EQ(done("main", {"master", "q"}), "sub1\n");
  ASSERT_TRUE(eventually([&] { return portctl("sub1", {"master", "q"}).out == "sub1\n"; }));
  done("sub1", {"move", "p", "--to", "sub1"});
  EXPECT_TRUE(eventually([&] {
    return portctl("main", {"master", "p"}).out == "sub1\n";
  })) << "the sub server says so";
  done("sub1", {"create", "own", "--kind", "proxy"});
  EXPECT_EQ(done("main", {"subs"}), "sub1\nsub2\n");

  EXPECT_EQ(info_of(sub, "p").kind, PORT_MASTER) << "served there now";
  EXPECT_EQ(info_of(sub, "p").limit, 7u);
  EXPECT_EQ(portctl("sub1", {"create", "p"}).status, 1) << "a sub server refuses a second one";
  EXPECT_EQ(portctl("main", {"exists", "own"}).status, 1) << "a sub server's own port";

  // sub2 has never been started: the others are listed all the same.
  const Outcome all = portctl("main", {"--json", "ls", "--all"});
  EXPECT_EQ(all.status, 3);
  EXPECT_THAT(all.err, HasSubstr("sub2"));
  const auto servers = json::parse(all.out);
  ASSERT_EQ(servers.size(), 3u);
  EXPECT_EQ(servers[0]["ports"][0]["name"], "p");
  EXPECT_EQ(servers[1]["server"], "sub1");
  EXPECT_TRUE(servers[2].contains("problem"));
}

}  // namespace
}  // namespace portsvc
