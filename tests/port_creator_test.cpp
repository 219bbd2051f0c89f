#include "ports/port_creator.h"

#include <gtest/gtest.h>

#include <typeinfo>

#include "ports/event_box.h"
#include "ports/master_port.h"
#include "ports/slave_port.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

using Main = ACE_Singleton<vrMainPort_Creator, ACE_Thread_Mutex>;
using Sub = ACE_Singleton<vrSubPort_Creator, ACE_Thread_Mutex>;

TEST(PortCreator, MakesTheClassThatTheRoleHasForAKind) {
  const struct {
    unsigned int asked;
    const vrPort_Creator* creator;
    const std::type_info& made;
    unsigned int kind;
  } cases[] = {
      {PORT_MASTER, Main::instance(), typeid(vrMaster_Port), PORT_MASTER},
      {PORT_SLAVE, Main::instance(), typeid(vrSlave_Port), PORT_SLAVE},
      {PORT_EVENTBOX, Main::instance(), typeid(vrEventBox), PORT_EVENTBOX},
      {PORT_MASTER, Sub::instance(), typeid(vrSlave_Port), PORT_SLAVE},
      {PORT_SLAVE, Sub::instance(), typeid(vrMaster_Port), PORT_MASTER},
      {PORT_EVENTBOX, Sub::instance(), typeid(vrEventBox), PORT_EVENTBOX},
  };
  for (const auto& c : cases) {
    const auto port = c.creator->create("name", 5, 6, c.asked, nullptr);
    ASSERT_TRUE(port);
    const Port_impl& object = *port;
    EXPECT_EQ(typeid(object), c.made);
    EXPECT_EQ(object.kind(), c.kind);
    EXPECT_STREQ(object.name(), "name");
    EXPECT_EQ(object.port_id(), 5u);
    EXPECT_EQ(object.limit(), 6u);
  }
}

TEST(PortCreator, MakesNothingForAnotherKind) {
  for (const unsigned int kind : {0u, CONNECT_OWNER, 30008u, 0xFFFFFFFFu}) {
    EXPECT_FALSE(Main::instance()->create("name", 5, 6, kind, nullptr));
    EXPECT_FALSE(Sub::instance()->create("name", 5, 6, kind, nullptr));
  }
}

TEST(PortCreator, IsOnePerRoleAndComplete) {
  in_parallel(
      4, [](int) { EXPECT_TRUE(Sub::instance()->create("name", 5, 6, PORT_MASTER, nullptr)); });
  EXPECT_EQ(Main::instance(), Main::instance());
  EXPECT_NE(static_cast<void*>(Main::instance()), static_cast<void*>(Sub::instance()));
}

}  // namespace
}  // namespace portsvc
