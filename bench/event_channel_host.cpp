// Hosts one omniEvents channel on a free port of the loopback and prints its reference. The channel
// is the one that the omniEvents daemon serves, from the daemon's own library: the daemon itself
// can only listen on every interface of the machine.
//
//   event_channel_host MAX_QUEUE_LENGTH CYCLE_PERIOD_NS MAX_MESSAGE_BYTES
#include <omniEvents/EventChannel.h>
#include <omniEvents/Orb.h>
#include <omniEvents/PersistNode.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fputs("usage: event_channel_host MAX_QUEUE_LENGTH CYCLE_PERIOD_NS MAX_MESSAGE_BYTES\n",
               stderr);
    return 2;
  }
  const char* options[][2] = {{"endPoint", "giop:tcp:127.0.0.1:0"},
                              {"giopMaxMsgSize", argv[3]},
                              {"traceLevel", "0"},
                              {nullptr, nullptr}};
  int no_arguments = 0;
  OmniEvents::Orb& host = OmniEvents::Orb::inst();
  host._orb = CORBA::ORB_init(no_arguments, nullptr, "omniORB4", options);
  host.resolveInitialReferences();
  const PortableServer::POAManager_var manager = host._RootPOA->the_POAManager();
  manager->activate();

  OmniEvents::PersistNode settings;
  settings.addattr("MaxQueueLength", std::atol(argv[1]));
  settings.addattr("CyclePeriod_ns", std::atol(argv[2]));
  auto* const channel = new OmniEvents::EventChannel_i;  // owned by its adapter
  channel->activate("bench", &settings);
  const CORBA::Object_var reference = channel->_this();
  const CORBA::String_var text = host._orb->object_to_string(reference);
  std::puts(text);
  std::fflush(stdout);
  host.run();
}
