// What a server leaves on disk, and what its next run makes of it.
#include <sys/mount.h>

#include "persistence/whole_file.h"
#include "tests/system/system_test.h"

namespace portsvc {
namespace {

class Snapshots : public SystemTest {
 protected:
  const std::string snapshot = folder.path("main/SnapShot/portsnap.snp");
  const std::string previous = folder.path("main/SnapShot/portsnap.previous");
  const std::string aside = folder.path("main/SnapShot/portsnap.damaged");

  void create(int count) {
    Texts names;
    for (int i = 0; i < count; ++i) names.push_back(fmt::format("p{}", i));
    portsvc::create(server("main"), names);
  }
  /// A second server of the same state folder does not start.
  void expect_refused(const Words& options, const std::string& why) {
    const Words second{"main",        "--name",           "m", "--endpoint", "giop:tcp:127.0.0.1:0",
                       "--state-dir", folder.path("main")};
    expect_failure(ended_server(second + options), 1, why);
  }

  /// Two ports, a box and two subscriptions.
  void fill() {
    done("main", {"create", "orders", "--limit", "10"});
    done("main", {"create", "results", "--limit", "20"});
    done("main", {"create", "alarms", "--kind", "box", "--limit", "30"});
    done("main", {"event", "persistent", "alarms", "on"});
    done("main", {"event", "subscribe", "alarms", "7"});
    done("main", {"event", "subscribe", "alarms", "-7"});
  }
  json shown() { return told("main", {"snapshot", "show", snapshot}); }
};

TEST_F(Snapshots, AKilledServerComesBackWithItsPortsBoxesAndSubscriptions) {
  start("main", {"--snapshot-every", "1"});
  fill();
  ASSERT_TRUE(eventually(
      [&] { return std::filesystem::exists(snapshot) && shown()["subscriptions"].size() == 2; }));
  const auto before = shown();
  kill("main");
  for (int run = 0; run < 2; ++run) {  // also when it is killed again before its first snapshot
    start("main", {"--restore"});
    done("main", {"snapshot", "save"});
    EXPECT_EQ(shown(), before);
    done("main", {"event", "declare", "-7", "oven 3 hot"});
    EXPECT_EQ(done("main", {"event", "watch", "alarms", "--drain"}), "oven 3 hot\n");
    if (run == 0) std::filesystem::remove(snapshot);
    kill("main");
  }
  const std::string kept = read_all(snapshot);
  start("main");
  EXPECT_EQ(portctl("main", {"exists", "orders"}).status, 1) << "not asked to restore";
  EXPECT_EQ(read_all(previous), kept) << "what nobody asked for is kept";
  kill("main");

  // What has changed since the last round is saved at the stop.
  start("main", {"--snapshot-every", "3600"});
  done("main", {"create", "late"});
  EXPECT_EQ(stop("main", SIGTERM), 0);
  EXPECT_EQ(shown()["ports"].size(), 1u);
}

TEST_F(Snapshots, ADeathWhileOneIsWrittenLeavesTheOldOne) {
  start("main");
  create(4000);
  done("main", {"snapshot", "save"});
  const std::string whole = read_all(snapshot);
  kill("main");
  for (int round = 0; round < 8; ++round) {
    start("main", {"--restore"});
    done("main", {"snapshot", "save"});
    const Port_Factory_var main = server("main");
    std::thread saving([&] {
      try {
        for (;;) main->make_snapshot();
      } catch (const CORBA::Exception&) {
        // It has been killed.
      }
    });
    EXPECT_TRUE(eventually([&] { return std::filesystem::exists(snapshot + unfinished); }));
    kill("main");
    saving.join();
    EXPECT_TRUE(read_all(snapshot) == whole) << round;
  }
}

TEST_F(Snapshots, AStartTakesTheNewestWholeOneAndThrowsNoneAway) {
  start("main");
  fill();
  done("main", {"snapshot", "save"});
  const std::string whole = read_all(snapshot);
  expect_refused({}, "another server works in the state folder");
  EXPECT_EQ(read_all(snapshot), whole);
  kill("main");

  // A newer file of no bytes, and an older whole one.
  std::filesystem::rename(snapshot, previous);
  write_all(snapshot, "");
  Process& restored = start("main", {"--restore"});
  EXPECT_THAT(restored.err(),
              HasSubstr("portsnap.previous: 2 ports, 1 event boxes, 2 subscriptions; left "
                        "out the damaged"));
  done("main", {"exists", "orders"});
  EXPECT_TRUE(std::filesystem::exists(aside));
  kill("main");
  EXPECT_EQ(read_all(previous), whole);

  // A start without --restore, and one after it whose snapshot holds nothing.
  write_all(snapshot, whole.substr(0, 600));
  start("main", {"--snapshot-every", "3600"});
  stop("main", SIGTERM);
  EXPECT_EQ(read_all(previous), whole);
  start("main");
  kill("main");
  EXPECT_EQ(read_all(previous), whole);

  // Nothing but damage.
  write_all(previous, whole.substr(0, 300));
  write_all(snapshot, whole.substr(0, 600));
  expect_refused(
      {"--restore"},
      "portsnap.snp is damaged: port record 3 of 3 breaks off at byte 544; --restore-damaged");
  EXPECT_EQ(read_all(previous) + read_all(snapshot), whole.substr(0, 300) + whole.substr(0, 600));
  Process& part = start("main", {"--restore-damaged"});
  EXPECT_THAT(part.err(), HasSubstr("2 ports, 0 event boxes, 0 subscriptions; it is damaged"));
  done("main", {"exists", "results"});
  kill("main");

  std::filesystem::remove(snapshot);
  std::filesystem::create_symlink(folder.path("elsewhere"), snapshot);
  expect_refused({}, "portsnap.snp is a symbolic link");
  std::filesystem::remove(snapshot);
  expect_refused({"--ior-file", folder.path("none/ior")}, "cannot write");

  std::filesystem::remove_all(folder.path("main/SnapShot"));
  write_all(folder.path("main/SnapShot"), "no folder");
  start("main");
  EXPECT_EQ(times_said("main", "cannot lock"), 1) << "it serves all the same";
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
  EXPECT_THAT(damaged.out, HasSubstr("orders "));
  EXPECT_EQ(damaged.out.find("results"), std::string::npos);
  EXPECT_THAT(damaged.err, HasSubstr("is damaged: "));
  done("main", {"clear", "--yes"});
  write_all(snapshot, read_all(copy));
  done("main", {"snapshot", "load"});
  done("main", {"exists", "orders"});
  EXPECT_EQ(portctl("main", {"exists", "results"}).status, 1);
}

TEST_F(Snapshots, AFullDiskFailsTheSnapshotAndNothingElse) {
  const std::string disk = folder.path("main");
  std::filesystem::create_directory(disk);
  if (::mount("none", disk.c_str(), "tmpfs", 0, "size=64k") != 0) {
    GTEST_SKIP() << "only root can mount a small disk";
  }
  const std::shared_ptr<void> unmount(nullptr, [&](void*) { ::umount2(disk.c_str(), MNT_DETACH); });
  start("main", {"--snapshot-every", "1"});
  create(100);
  done("main", {"snapshot", "save"});
  const std::string whole = read_all(snapshot);
  create(1000);
  expect_failure(portctl("main", {"snapshot", "save"}), 1, "2 snapshot_not_writable");
  EXPECT_TRUE(read_all(snapshot) == whole);
  done("main", {"exists", "p999"});
  ASSERT_TRUE(eventually([&] { return times_said("main", "no snapshot: cannot write") > 0; }));
  // Another round that fails leaves its trace in the folder's time alone.
  const auto touched = [&] {
    return std::filesystem::last_write_time(folder.path("main/SnapShot"));
  };
  ASSERT_TRUE(eventually([&, before = touched()] { return touched() != before; }));
  EXPECT_EQ(times_said("main", "no snapshot:"), 1) << process("main").err();
  for (int i = 10; i < 1000; ++i) server("main")->delete_port(fmt::format("p{}", i).c_str());
  done("main", {"snapshot", "save"});
  EXPECT_EQ(shown()["ports"].size(), 10u);
  EXPECT_TRUE(eventually([&] { return times_said("main", "snapshots are written again") == 1; }));
}

}  // namespace
}  // namespace portsvc
