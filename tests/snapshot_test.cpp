// Snapshots of a servant.
#include <gtest/gtest.h>

#include <filesystem>

#include "middleware/file_handle.h"
#include "platform/process.h"
#include "ports/event_box.h"
#include "tests/support/folder.h"
#include "tests/support/peers.h"
#include "tests/support/snapshots.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

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
