// Events through the command line.
#include <nlohmann/json.hpp>

#include "tests/system/system_test.h"

namespace portsvc {
namespace {

TEST_F(SystemTest, ABoxIsFilledCountedSwitchedAndEmptied) {
  start("main");
  done("main", {"create", "box", "--kind", "box", "--limit", "3"});
  EXPECT_EQ(portctl("main", {"event", "declare", "-5", "x"}).status, 1) << "nobody subscribed";
  done("main", {"event", "subscribe", "box", "-5"});
  const Outcome again = portctl("main", {"event", "subscribe", "box", "4294967291"});
  EXPECT_EQ(again.status, 1);
  EXPECT_THAT(again.err, HasSubstr("2014"));
  done("main", {"event", "declare", "-5", "a", "b", "c", "d"});
  done("main", {"event", "put", "box", "e"});
  EXPECT_EQ(done("main", {"event", "count", "box"}), "3\n");
  EXPECT_THAT(done("main", {"ls"}), HasSubstr("3       -")) << "events of the box";
  EXPECT_EQ(done("main", {"event", "watch", "box", "--drain"}), "c\nd\ne\n") << "oldest dropped";
  done("main", {"event", "put", "box", "f"});
  done("main", {"event", "clear", "box"});
  EXPECT_EQ(done("main", {"event", "watch", "box", "--drain"}), "");

  for (const char* state : {"on", "off"}) {
    done("main", {"event", "copy", "box", state});
    done("main", {"event", "persistent", "box", state});
    done("main", {"snapshot", "download", folder.path("snapshot")});
    const auto shown = nlohmann::json::parse(
        done("main", {"--json", "snapshot", "show", folder.path("snapshot")}));
    EXPECT_EQ(shown["ports"][0]["persistent"], state == std::string("on"));
  }
  EXPECT_EQ(portctl("main", {"event", "copy", "nobox", "on"}).status, 1);
  EXPECT_EQ(portctl("main", {"event", "count", "nobox"}).status, 1);
}

}  // namespace
}  // namespace portsvc
