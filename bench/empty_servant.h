// A servant of the service's own interface that does nothing: what a call costs before any work is
// done.
#pragma once

#include "middleware/orb/orb.h"

namespace portsvc {

class EmptyServant : public virtual POA_Varo::DT_PORT_SVC::Port_Factory,
                     public virtual PortableServer::RefCountServantBase {
 public:
  using Data = Varo::DATA_BUFFER;
  using Handles = Varo::PORT_HANDLE_SET;

  CORBA::ULong connect_port(const char*, CORBA::ULong& handle, CORBA::ULong, CORBA::ULong,
                            CORBA::ULong& owner) override {
    handle = 0;
    owner = 0;
    return 0;
  }
  CORBA::ULong set_connected_host(const char*, const char*) override { return 0; }
  CORBA::ULong disconnect_port(CORBA::ULong) override { return 0; }
  CORBA::ULong create_port(const char*, CORBA::ULong, CORBA::ULong) override { return 0; }
  CORBA::ULong setPersistent(const char*, CORBA::Long) override { return 0; }
  CORBA::ULong packet_foward(CORBA::ULong, const Data&, CORBA::ULong) override { return 0; }
  CORBA::ULong packet_foward_front(CORBA::ULong, const Data&, CORBA::ULong) override { return 0; }
  CORBA::ULong packet_receive(CORBA::ULong, CORBA::ULong& source, Varo::DATA_BUFFER_out data,
                              CORBA::ULong) override {
    source = 0;
    data = new Data;
    return 0;
  }
  CORBA::ULong packet_receive_n(CORBA::ULong, Varo::DATA_BUFFER_SEQ_out list, CORBA::ULong,
                                CORBA::ULong) override {
    list = new Varo::DATA_BUFFER_SEQ;
    return 0;
  }
  CORBA::ULong current_connection(Varo::DT_PORT_SVC::ConnectionSeq_out list) override {
    list = new Varo::DT_PORT_SVC::ConnectionSeq;
    return 0;
  }
  CORBA::Long exist(const char*) override { return 0; }
  CORBA::ULong delete_port(const char*) override { return 0; }
  CORBA::ULong patch_object_name(Varo::STRING_LIST_out ports,
                                 Varo::STRING_LIST_out boxes) override {
    ports = new Varo::STRING_LIST;
    boxes = new Varo::STRING_LIST;
    return 0;
  }
  CORBA::ULong packet_replay(CORBA::ULong, const Data&, CORBA::ULong) override { return 0; }
  CORBA::ULong packet_replay_wait(CORBA::ULong, Varo::DATA_BUFFER_out data, CORBA::ULong) override {
    data = new Data;
    return 0;
  }
  CORBA::ULong select_event_port(const Handles&, CORBA::ULong& ready, CORBA::ULong) override {
    ready = 0;
    return 0;
  }
  CORBA::ULong select_replay_port(const Handles&, CORBA::ULong& ready, CORBA::ULong) override {
    ready = 0;
    return 0;
  }
  CORBA::ULong clear_event(const char*) override { return 0; }
  CORBA::ULong event_count(const char*, CORBA::ULong& count) override {
    count = 0;
    return 0;
  }
  CORBA::ULong add_event(const char*, CORBA::ULong) override { return 0; }
  CORBA::ULong send_event(const char*, const Data&) override { return 0; }
  CORBA::ULong declare_event(CORBA::ULong, const Data&, CORBA::ULong) override { return 0; }
  CORBA::ULong declare_event_n(CORBA::ULong, const Varo::DATA_BUFFER_SEQ&, CORBA::ULong) override {
    return 0;
  }
  CORBA::ULong get_port_info(const char*, Varo::DT_PORT_SVC::PORT_INFO& info) override {
    info = Varo::DT_PORT_SVC::PORT_INFO();
    return 0;
  }
  CORBA::ULong make_snapshot() override { return 0; }
  CORBA::ULong load_snapshot() override { return 0; }
  CORBA::ULong sendEvcDatatoSlave(const char*, CORBA::Long) override { return 0; }
  CORBA::ULong push_remote_consumer(const char*) override { return 0; }
  CORBA::ULong update_port(const char*, CORBA::ULong, const Data&) override { return 0; }
  CORBA::ULong update_port_front(const char*, CORBA::ULong, const Data&) override { return 0; }
  CORBA::ULong force_toslave(const char*, const char*) override { return 0; }
  CORBA::ULong inquire_master(const char*, CORBA::String_out master) override {
    master = CORBA::string_dup("");
    return 0;
  }
  CORBA::ULong get_remote_sub(Varo::STRING_LIST_out list) override {
    list = new Varo::STRING_LIST;
    return 0;
  }
  void heart_bit() override {}
  CORBA::Long copy_enable(const char*, CORBA::Long) override { return 0; }
  CORBA::ULong gen_evc_code(CORBA::ULong& code) override {
    code = 0;
    return 0;
  }
  void clearAll() override {}
  Varo::FileHandle_ptr openSnapShot() override { return Varo::FileHandle::_nil(); }
};

}  // namespace portsvc
