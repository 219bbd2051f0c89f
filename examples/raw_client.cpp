// The smallest client on the interface definition alone: no library but the broker.
//
//     raw_client HOST:PORT PORT_NAME TEXT    sends a packet and prints the reply
#include <algorithm>
#include <iostream>
#include <string>

#include "port_service.hh"

namespace svc = Varo::DT_PORT_SVC;

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: raw_client HOST:PORT PORT_NAME TEXT\n";
    return 2;
  }
  try {
    // The broker's own settings would refuse messages above 2 MiB, have six waiting calls wait for
    // one another, and let a call to a frozen server wait for ever.
    const char* settings[][2] = {{"giopMaxMsgSize", "67108864"},
                                 {"maxGIOPConnectionPerServer", "1000"},
                                 {"clientCallTimeOutPeriod", "40000"},  // ms; more than any wait
                                 {nullptr, nullptr}};
    int no_words = 0;
    const CORBA::ORB_var orb = CORBA::ORB_init(no_words, nullptr, "omniORB4", settings);
    const std::string address = std::string("corbaloc:iiop:") + argv[1] + "/" + svc::OBJECT_KEY;
    const CORBA::Object_var object = orb->string_to_object(address.c_str());
    const svc::Port_Factory_var server = svc::Port_Factory::_narrow(object);
    if (CORBA::is_nil(server)) throw CORBA::INV_OBJREF();

    const auto check = [](const char* what, CORBA::ULong code) {
      if (code != svc::result::ok) throw std::string(what) + " answered " + std::to_string(code);
    };
    CORBA::ULong handle = 0;
    CORBA::ULong owner = 0;
    check("connect_port",
          server->connect_port(argv[2], handle, svc::CONNECT_CLIENT, svc::ACCESS_WAIT, owner));
    const std::string text = argv[3];
    Varo::DATA_BUFFER packet;
    packet.length(text.size());
    std::copy(text.begin(), text.end(), packet.get_buffer());
    check("packet_foward", server->packet_foward(handle, packet, 30));  // seconds; 0 is for ever
    Varo::DATA_BUFFER_var reply;
    check("packet_replay_wait", server->packet_replay_wait(handle, reply.out(), 30));
    std::cout.write(reinterpret_cast<const char*>(reply->get_buffer()), reply->length()) << "\n";
    // A handle outlives the process: whoever does not disconnect leaves a client behind.
    check("disconnect_port", server->disconnect_port(handle));
    orb->destroy();
    return 0;
  } catch (const CORBA::SystemException& exception) {
    std::cerr << "raw_client: " << exception._name() << ", minor code " << exception.minor()
              << "\n";
  } catch (const CORBA::Exception& exception) {
    std::cerr << "raw_client: " << exception._name() << "\n";
  } catch (const std::string& failure) {
    std::cerr << "raw_client: " << failure << "\n";
  }
  return 1;
}
