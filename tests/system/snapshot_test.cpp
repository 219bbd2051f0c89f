// What a server leaves on disk, and what its next run makes of it.
#include <fmt/format.h>
#include <signal.h>
#include <sys/mount.h>

#include <nlohmann/json.hpp>

#include "tests/system/system_test.h"

namespace portsvc {
namespace {

class Snapshots : public SystemTest {
 protected:
  const std::string snapshot = folder.path("main/SnapShot/portsnap.snp");

  /// Two ports, a box and two subscriptions.
  void fill() {
    done("main", {"create", "orders", "--limit", "10"});
    done("main", {"create", "results", "--limit", "20"});
    done("main", {"create", "alarms", "--kind", "box", "--limit", "30"});
    done("main", {"event", "persistent", "alarms", "on"});
    done("main", {"event", "subscribe", "alarms", "7"});
    done("main", {"event", "subscribe", "alarms", "-7"});
  }

  nlohmann::json show(const std::string& file) {
    return nlohmann::json::parse(portctl("main", {"--json", "snapshot", "show", file}).out);
  }
};

TEST_F(Snapshots, AKilledServerComesBackWithItsPortsBoxesAndSubscriptions) {
  start("main", {"--snapshot-every", "1"});
  fill();
  ASSERT_TRUE(eventually([&] {
    return std::filesystem::exists(snapshot) && show(snapshot)["subscriptions"].size() == 2;
  }));
  const auto before = show(snapshot);
  kill("main");
  for (int run = 0; run < 2; ++run) {  // also when it is killed again before its first snapshot
    start("main", {"--restore"});
    done("main", {"snapshot", "save"});
    EXPECT_EQ(show(snapshot), before);
    done("main", {"event", "declare", "-7", "oven 3 hot"});
    EXPECT_EQ(done("main", {"event", "watch", "alarms", "--drain"}), "oven 3 hot\n");
    if (run == 0) std::filesystem::remove(snapshot);
    kill("main");
  }
  start("main");
  EXPECT_EQ(portctl("main", {"exists", "orders"}).status, 1) << "not asked to restore";
}

TEST_F(Snapshots, ASnapshotIsSavedLoadedDownloadedAndShown) {
  start("main");
  EXPECT_EQ(portctl("main", {"snapshot", "load"}).status, 1) << "there is none yet";
  fill();
  done("main", {"snapshot", "save"});
  const std::string copy = folder.path("copy");
  done("main", {"snapshot", "download", copy});
  EXPECT_EQ(read_all(copy), read_all(snapshot));
  EXPECT_EQ(done("main", {"snapshot", "show", copy}),
            "NAME     KIND           LIMIT  PERSISTENT\n"
            "orders   PORT_MASTER    10     -\n"
            "results  PORT_MASTER    20     -\n"
            "alarms   PORT_EVENTBOX  30     yes\n"
            "\n"
            "CODE  BOX\n"
            "-7    alarms\n"
            "7     alarms\n");
  done("main", {"clear", "--yes"});
  EXPECT_EQ(portctl("main", {"exists", "orders"}).status, 1);
  done("main", {"snapshot", "load"});
  done("main", {"snapshot", "save"});
  EXPECT_EQ(read_all(snapshot), read_all(copy));

  // One byte short, and one without its second port: what is whole is shown and loaded.
  write_all(copy, read_all(copy).substr(0, 8 + 2 * 268 - 1));
  const Outcome damaged = portctl("main", {"snapshot", "show", copy});
  EXPECT_EQ(damaged.status, 1);
  EXPECT_NE(damaged.out.find("orders "), std::string::npos);
  EXPECT_EQ(damaged.out.find("results"), std::string::npos);
  EXPECT_NE(damaged.err.find("is damaged: "), std::string::npos) << damaged.err;
  done("main", {"clear", "--yes"});
  write_all(snapshot, read_all(copy));
  done("main", {"snapshot", "load"});
  done("main", {"exists", "orders"});
  EXPECT_EQ(portctl("main", {"exists", "results"}).status, 1);
}

TEST_F(Snapshots, AnOpenSnapshotIsReadToItsEndAfterItsFileHasGone) {
  start("main");
  fill();
  const Port_Factory_var main = server("main");
  const Varo::FileHandle_var handle = main->openSnapShot();
  const std::string whole = read_all(snapshot);
  std::filesystem::remove(snapshot);
  CORBA::Long size = 0;
  EXPECT_EQ(handle->size(size), 0);
  EXPECT_EQ(static_cast<std::size_t>(size), whole.size());
  std::string bytes;
  for (CORBA::Long length = 100; length > 0;) {
    Varo::DATA_BUFFER_var data;
    ASSERT_EQ(handle->read(static_cast<CORBA::Long>(bytes.size()), length, data.out()), 0);
    bytes += text(data.in());
  }
  EXPECT_EQ(bytes, whole);
  handle->close();
  EXPECT_THROW(handle->size(size), CORBA::OBJECT_NOT_EXIST);
  done("main", {"snapshot", "save"});
  EXPECT_EQ(read_all(snapshot), whole);
}

// A small file system of the test's own.
class SmallDisk {
 public:
  explicit SmallDisk(const std::string& at) : at_(at) {
    std::filesystem::create_directory(at_);
    mounted_ = ::mount("none", at_.c_str(), "tmpfs", 0, "size=64k") == 0;
  }
  ~SmallDisk() {
    if (mounted_) ::umount2(at_.c_str(), MNT_DETACH);
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;
  bool mounted() const { return mounted_; }

 private:
  const std::string at_;
  bool mounted_ = false;
};

TEST_F(Snapshots, AFullDiskFailsTheSnapshotAndNothingElse) {
  const SmallDisk disk(folder.path("main"));
  if (!disk.mounted()) GTEST_SKIP() << "only root can mount a small disk";
  start("main");
  const Port_Factory_var main = server("main");
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(main->create_port(fmt::format("p{}", i).c_str(), PORT_MASTER, 8), result::ok);
  }
  const Outcome full = portctl("main", {"snapshot", "save"});
  EXPECT_EQ(full.status, 1);
  EXPECT_NE(full.err.find("2 snapshot_not_writable"), std::string::npos) << full.err;
  done("main", {"exists", "p999"});
  for (int i = 10; i < 1000; ++i) EXPECT_EQ(main->delete_port(fmt::format("p{}", i).c_str()), 0u);
  done("main", {"snapshot", "save"});
  EXPECT_EQ(show(snapshot)["ports"].size(), 10u);
}

}  // namespace
}  // namespace portsvc
