// Snapshots: the file, and what a servant makes of it.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "middleware/file_handle.h"
#include "persistence/whole_file.h"
#include "platform/process.h"
#include "ports/event_box.h"
#include "tests/support/folder.h"
#include "tests/support/peers.h"
#include "tests/support/snapshots.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

std::string u32(std::uint32_t value) {
  std::string bytes;
  for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(value >> shift);
  return bytes;
}

std::string field(std::string name) {
  name.resize(256, '\0');
  return name;
}

std::string port_record(const std::string& name, std::uint32_t kind, std::uint32_t limit,
                        char persistent) {
  return field(name) + u32(kind) + u32(limit) + persistent + std::string(3, '\0');
}

std::string subscription_record(std::uint32_t code, const std::string& name) {
  return u32(code) + field(name);
}

// Two ports, one of them a box, and two subscriptions.
std::string sample() {
  return u32(10005) + u32(2) + port_record("p", 30005, 8, 0) +
         port_record("box", 30006, 0xFFFFFFFF, 1) + u32(10007) + u32(2) +
         subscription_record(0x80000000, "box") + subscription_record(7, "other");
}

TEST(SnapshotFile, IsWrittenByteForByteAndReadBack) {
  snapshot::Section_Writer ports(snapshot::ports_marker);
  snapshot::Section_Writer subscriptions(snapshot::subscriptions_marker);
  EXPECT_EQ(ports.finish() + subscriptions.finish(), u32(10005) + u32(0) + u32(10007) + u32(0));
  ports.add_port("p", PORT_MASTER, 8, false);
  ports.add_port(std::string(256, 'n'), PORT_MASTER, 8, false);
  ports.add_port("box", PORT_EVENTBOX, 0xFFFFFFFF, true);
  subscriptions.add_subscription(0x80000000, "box");
  subscriptions.add_subscription(1, std::string(256, 'n'));
  subscriptions.add_subscription(7, "other");
  EXPECT_EQ(ports.finish() + subscriptions.finish(), sample())
      << "names that do not fit are left out";
  const snapshot::Content content = snapshot::parse(sample());
  EXPECT_EQ(all_of(content), "p/30005/8 box/30006/4294967295! 2147483648:box 7:other ");
  EXPECT_EQ(content.problem, "");

  const std::string longest(255, 'n');
  snapshot::Section_Writer more(snapshot::ports_marker);
  for (const std::string& name : {longest, std::string()})
    more.add_port(name, PORT_SLAVE, 0, false);
  EXPECT_EQ(all_of(snapshot::parse(more.finish())), longest + "/30007/0 /30007/0 ");
}

TEST(SnapshotFile, IsReadAsFarAsItsRecordsAreWhole) {
  const std::string whole = sample();
  const std::size_t subscriptions = 8 + 2 * 268;
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const snapshot::Content content = snapshot::parse(std::string_view(whole).substr(0, length));
    const std::size_t ports = length < 8 ? 0 : std::min<std::size_t>((length - 8) / 268, 2);
    EXPECT_EQ(content.ports.size(), ports) << length;
    EXPECT_EQ(content.subscriptions.size(),
              length < subscriptions + 8 ? 0 : (length - subscriptions - 8) / 260)
        << length;
    EXPECT_NE(content.problem, "") << length;
  }
}

TEST(SnapshotFile, IsReadByItsCountsWhateverTheySay) {
  // Wrong markers do not matter.
  std::string bytes = sample();
  bytes.replace(0, 4, u32(1));
  bytes.replace(8 + 2 * 268, 4, u32(2));
  EXPECT_EQ(snapshot::parse(bytes).subscriptions.size(), 2u);
  // Counts of four billion yield what is there, in no more memory than that needs.
  bytes.replace(4, 4, u32(0xFFFFFFFF));
  EXPECT_EQ(snapshot::parse(bytes).ports.size(), (sample().size() - 8) / 268);
  bytes = u32(10005) + u32(0) + u32(10007) + u32(0xFFFFFFFF) + subscription_record(7, "box");
  const snapshot::Content content = snapshot::parse(bytes);
  EXPECT_EQ(all_of(content), "7:box ");
  EXPECT_EQ(content.subscriptions_count, 0xFFFFFFFFu);
  EXPECT_NE(content.problem, "");
  // A count too small leaves bytes over.
  bytes = sample();
  bytes.replace(8 + 2 * 268 + 4, 4, u32(1));
  EXPECT_EQ(snapshot::parse(bytes).subscriptions.size(), 1u);
  EXPECT_NE(snapshot::parse(bytes).problem, "");
}

TEST(SnapshotFile, HasMeaninglessBytesAndNamesWithoutAnEnd) {
  std::string bytes = sample();
  bytes[8 + 10] = 'x';          // after the first port's name
  bytes[8 + 264 + 2] = '\xff';  // in its padding
  bytes[8 + 268 + 264] = '\x80';
  EXPECT_EQ(all_of(snapshot::parse(bytes)), all_of(snapshot::parse(sample())));
  bytes.replace(8, 256, std::string(256, 'n'));
  bytes.replace(8 + 2 * 268 + 8 + 4, 256, std::string(256, '\xff'));
  const snapshot::Content content = snapshot::parse(bytes);
  EXPECT_EQ(all_of(content), "box/30006/4294967295! 7:other ");
  EXPECT_EQ(content.unreadable_records, 2u);
}

TEST(SnapshotFile, IsRewrittenInPlaceWhereTheFolderTakesNoSecondFile) {
  const TemporaryFolder folder;
  const std::string path = folder.path("file");
  write_all(path, "old and longer");
  const uid_t user = ::geteuid();
  const uid_t other = user == 0 ? 65534 : user;  // root may write anywhere
  ASSERT_EQ(::chown(path.c_str(), other, static_cast<gid_t>(-1)), 0);
  ASSERT_EQ(::chmod(folder.path().c_str(), 0555), 0);
  ASSERT_EQ(::seteuid(other), 0);
  const std::string problem = write_whole_file(path, "new");
  const std::string none = write_whole_file(folder.path("none"), "new");
  ASSERT_EQ(::seteuid(user), 0);
  ::chmod(folder.path().c_str(), 0755);
  EXPECT_EQ(problem, "");
  EXPECT_EQ(read_all(path), "new");
  EXPECT_NE(none.find("cannot write"), std::string::npos) << none;
}

class Snapshot : public WithPeers {
 protected:
  Snapshot() : usual_state_(state_folder()) { set_state_folder(folder.path()); }
  ~Snapshot() override { set_state_folder(usual_state_); }

  static snapshot::Content content(Port_Factory_i& server) {
    return snapshot::parse(read_all(server.get_snap_path()));
  }
  static std::unique_ptr<SubServer> sub_server() {
    return std::make_unique<SubServer>("main", "plant/sub", nullptr, CORBA::ORB::_nil());
  }
  static bool persistent(Opened<Port_Factory_Main>& server, const char* name) {
    return dynamic_cast<vrEventBox&>(*server.get_port(name)).persistent();
  }

  const TemporaryFolder folder;

 private:
  const std::string usual_state_;
};

TEST_F(Snapshot, LiesBesideTheStateAndIsGoneWhenAServantStarts) {
  const std::string path = folder.path("SnapShot/portsnap.snp");
  {
    MainServer server;
    EXPECT_EQ(server.get_snap_path(), path);
    server.SetReleam("north");
    EXPECT_EQ(server.get_snap_path(), path) << "composed once, before any realm is known";
    EXPECT_EQ(server.load_snapshot(), result::failed) << "there is none yet";
    EXPECT_EQ(server.make_snapshot(), result::ok);
    EXPECT_EQ(read_all(path), std::string("\x15\x27\0\0\0\0\0\0\x17\x27\0\0\0\0\0\0", 16));
    EXPECT_EQ(server.load_snapshot(), result::ok);
  }
  EXPECT_TRUE(std::filesystem::exists(path));
  const MainServer next;
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(Snapshot, HoldsPortsInOrderOfCreationAndSubscriptionsByCode) {
  MainServer server;
  const std::string unfit(256, 'n');
  const std::string longest(255, 'n');
  create(server, {"z", unfit, "a"});
  create(server, {"box"}, PORT_EVENTBOX, 9);
  create(server, {longest}, PORT_SLAVE, 0xFFFFFFFF);
  create(server, {"idle"}, PORT_EVENTBOX, 0);
  server.setPersistent("idle", 0);
  for (const unsigned int code : {5u, 0xFFFFFFFFu, 0x80000000u, 0u}) server.add_event("x", code);
  for (const char* name : {"b", unfit.c_str(), "a"}) server.add_event(name, 0);
  server.send_event("box", wire("not saved"));
  ASSERT_EQ(server.make_snapshot(), result::ok);

  const snapshot::Content saved = content(server);
  EXPECT_EQ(all_of(saved), "z/30005/8 a/30005/8 " + longest +
                               "/30007/4294967295 box/30006/9! idle/30006/0 "
                               "2147483648:x 4294967295:x 0:x 0:b 0:a 5:x ");
  EXPECT_EQ(saved.ports_count, 5u);
  EXPECT_EQ(std::filesystem::file_size(server.get_snap_path()), 8u + 5 * 268 + 8 + 6 * 260);
  EXPECT_EQ(saved.problem, "");
}

TEST_F(Snapshot, AddsToWhatIsThere) {
  MainServer server;
  create(server, {"p", "q"});
  create(server, {"idle", "box"}, PORT_EVENTBOX, 9);
  server.setPersistent("idle", 0);
  for (const char* name : {"box", "idle"}) server.add_event(name, 7);
  ASSERT_EQ(server.make_snapshot(), result::ok);
  const std::string copy = folder.path("copy");
  std::filesystem::copy(server.get_snap_path(), copy);

  MainServer other;
  create(other, {"q", "box"}, PORT_EVENTBOX, 4);
  other.setPersistent("box", 0);
  other.add_event("box", 7);
  EXPECT_EQ(other.load_refsnapshot(copy.c_str()), result::ok);
  EXPECT_EQ(names(other), Names({"p"}, {"q", "box", "idle"}));
  EXPECT_EQ(other.get_port("box")->limit(), 4u);
  EXPECT_TRUE(persistent(other, "box")) << "the flag is set on a box that was there";
  EXPECT_TRUE(persistent(other, "idle")) << "a new box keeps what it was made with";
  EXPECT_EQ(other.declare_event(7, wire("x"), 0), result::ok);
  for (const char* box : {"box", "idle"}) EXPECT_EQ(drain(other, box), Texts{"x"});
  EXPECT_EQ(other.load_refsnapshot(folder.path("missing").c_str()), result::failed);

  // A record with its flag set that is no box, and damage, do no harm.
  std::string bytes = read_all(copy);
  bytes[8 + 264] = 1;
  bytes.replace(8 + 268, 256, std::string(256, 'n'));
  bytes.replace(8 + 2 * 268 + 256, 4, std::string(4, '\xff'));
  MainServer third;
  for (const std::size_t length : {bytes.size(), bytes.size() - 1, std::size_t{9}}) {
    write_all(copy, bytes.substr(0, length));
    EXPECT_EQ(third.load_refsnapshot(copy.c_str()), result::ok);
    EXPECT_EQ(names(third), Names({"p"}, {"box"}));
  }
}

TEST_F(Snapshot, TurnsProxiesRoundOnASubServer) {
  const auto first = sub_server();
  create(*first, {"p"});
  create(*first, {"box"}, PORT_EVENTBOX);
  EXPECT_EQ(first->get_port("p")->kind(), PORT_SLAVE);
  ASSERT_EQ(first->make_snapshot(), result::ok);
  const std::string copy = folder.path("copy");
  std::filesystem::copy(first->get_snap_path(), copy);

  const auto second = sub_server();
  EXPECT_EQ(second->load_refsnapshot(copy.c_str()), result::ok);
  EXPECT_EQ(second->get_port("p")->kind(), PORT_MASTER);
  EXPECT_EQ(id_of(*second, "p"), 758u) << "a number of its own";
  MainServer main;
  EXPECT_EQ(main.load_refsnapshot(copy.c_str()), result::ok);
  EXPECT_EQ(main.get_port("p")->kind(), PORT_SLAVE);
  EXPECT_EQ(second->load_refsnapshot(copy.c_str()), result::ok) << "rejections are no failure";
}

TEST_F(Snapshot, SaysWhenTheFileCannotBeWritten) {
  write_all(folder.path("file"), "");
  set_state_folder(folder.path("file"));
  MainServer server;
  EXPECT_EQ(server.make_snapshot(), result::snapshot_not_writable);
  EXPECT_EQ(server.load_snapshot(), result::failed);
  EXPECT_TRUE(CORBA::is_nil(Varo::FileHandle_var(server.openSnapShot())));
}

TEST_F(Snapshot, HandlesThatNobodyClosesAreBounded) {
  MainServer server;
  create(server, {"p"});
  std::vector<Varo::FileHandle_var> handles;
  // Of one content many may be open; of five contents the oldest goes, with all its handles.
  for (std::size_t i = 0; i < 10; ++i) handles.emplace_back(server.openSnapShot());
  for (std::size_t i = 1; i < FileHandleImpl::most_contents; ++i) {
    server.create_port(std::to_string(i).c_str(), PORT_MASTER, 8);
    handles.emplace_back(server.openSnapShot());
  }
  for (const auto& handle : handles) EXPECT_FALSE(handle->_non_existent());
  create(server, {"q"});
  handles.emplace_back(server.openSnapShot());
  for (std::size_t i = 0; i < handles.size(); ++i) EXPECT_EQ(handles[i]->_non_existent(), i < 10);
  for (std::size_t i = 10; i < handles.size(); ++i) handles[i]->close();
}

TEST_F(Snapshot, IsWholeHoweverManySaveAndLoadAtOnce) {
  MainServer server;
  in_parallel(4, [&](int i) {
    for (int n = 0; n < 20; ++n) {
      const std::string name = std::to_string(i) + "." + std::to_string(n);
      server.create_port(name.c_str(), n % 2 ? PORT_MASTER : PORT_EVENTBOX, 8);
      server.add_event(name.c_str(), 7);
      EXPECT_EQ(server.make_snapshot(), result::ok);
      EXPECT_EQ(server.load_snapshot(), result::ok);
      if (n % 4 == 0) server.delete_port(name.c_str());
    }
  });
  EXPECT_EQ(server.make_snapshot(), result::ok);
  EXPECT_EQ(content(server).problem, "");
}

}  // namespace
}  // namespace portsvc
