// Events through the command line.
#include <fmt/format.h>

#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/system/system_test.h"

namespace portsvc {
namespace {

class Events : public SystemTest {
 protected:
  Events() { start("main"); }
};

TEST_F(Events, AWatcherPrintsInOrderWhatFourLoopsDeclareAtOnce) {
  constexpr int each = 25;
  done("main", {"create", "alarms", "--kind", "box", "--limit", "1000"});
  done("main", {"event", "subscribe", "alarms", "7"});
  const auto watcher =
      in_background("main", {"event", "watch", "alarms", "--count", std::to_string(4 * each)});
  std::vector<std::unique_ptr<Process>> loops;
  for (int producer = 0; producer < 4; ++producer) {
    const std::string script =
        fmt::format("for i in $(seq {}); do {} --server {} event declare 7 \"{} $i\" || exit; done",
                    each, PORTCTL, corbaloc("main"), producer);
    loops.push_back(std::make_unique<Process>(Words{"sh", "-c", script},
                                              folder.path(fmt::format("loop{}", producer))));
  }
  for (auto& loop : loops) EXPECT_EQ(outcome(*loop, 100s).status, 0) << loop->err();
  ASSERT_EQ(outcome(*watcher).status, 0) << watcher->err();

  std::istringstream lines(watcher->out());
  std::map<int, int> last;
  for (int producer = 0, number = 0; lines >> producer >> number;) {
    EXPECT_EQ(number, ++last[producer]) << "of producer " << producer;
  }
  EXPECT_EQ(last, (std::map<int, int>{{0, each}, {1, each}, {2, each}, {3, each}}));
}

TEST_F(Events, ABoxIsFilledCountedSwitchedAndEmptied) {
  done("main", {"create", "box", "--kind", "box", "--limit", "3"});
  EXPECT_EQ(portctl("main", {"event", "declare", "-5", "x"}).status, 1) << "nobody subscribed";
  done("main", {"event", "subscribe", "box", "-5"});
  const Outcome again = portctl("main", {"event", "subscribe", "box", "4294967291"});
  EXPECT_EQ(again.status, 1);
  EXPECT_NE(again.err.find("2014"), std::string::npos) << again.err;
  done("main", {"event", "declare", "-5", "a", "b", "c", "d"});
  done("main", {"event", "put", "box", "e"});
  EXPECT_EQ(done("main", {"event", "count", "box"}), "3\n");
  EXPECT_NE(done("main", {"ls"}).find("3       -"), std::string::npos) << "events of the box";
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
