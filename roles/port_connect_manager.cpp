#include "roles/port_connect_manager.h"

#include "roles/port_factory_sub.h"

vrPortConnect_Manager::vrPortConnect_Manager(const char* first, const char* second,
                                             Port_Factory_Sub* servant, ACE_Reactor* reactor)
    : vrConnect_Manager(first, second, CORBA::Object_var(servant->_this()), reactor),
      servant_(servant) {}

vrPortConnect_Manager::~vrPortConnect_Manager() { stop(); }

unsigned int vrPortConnect_Manager::on_connected(CORBA::Object_var& object) {
  return servant_->back_call_(object);
}

void vrPortConnect_Manager::on_heartbeat() { servant_->heart_bit(); }
