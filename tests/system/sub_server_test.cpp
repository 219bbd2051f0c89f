// Main and sub servers that are all there.
#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "tests/system/system_test.h"

namespace portsvc {
namespace {

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
  start("sub1");
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

  const Port_Factory_var sub = server("sub1");
  EXPECT_EQ(info_of(sub, "p").kind, PORT_MASTER) << "served there now";
  EXPECT_EQ(info_of(sub, "p").limit, 7u);
  EXPECT_EQ(portctl("sub1", {"create", "p"}).status, 1) << "a sub server refuses a second one";
  EXPECT_EQ(portctl("main", {"exists", "own"}).status, 1) << "a sub server's own port";

  // sub2 has never been started: the others are listed all the same.
  const Outcome all = portctl("main", {"--json", "ls", "--all"});
  EXPECT_EQ(all.status, 3);
  EXPECT_THAT(all.err, HasSubstr("sub2"));
  const auto servers = nlohmann::json::parse(all.out);
  ASSERT_EQ(servers.size(), 3u);
  EXPECT_EQ(servers[0]["ports"][0]["name"], "p");
  EXPECT_EQ(servers[1]["server"], "sub1");
  EXPECT_TRUE(servers[2].contains("problem"));
}

}  // namespace
}  // namespace portsvc
