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

void vrPortConnect_Manager::on_heartbeat() {
  servant_->note_main_server(reached());
  servant_->heart_bit();
  if (reached()) settled_ = servant_->settle(peer_.in(), !settled_);
}

vrConnect_Manager::Seen vrPortConnect_Manager::look_at(Varo::DT_PORT_SVC::Port_Factory_ptr peer) {
  try {
    if (!reached()) servant_->main_server_reached_anew();
    // Before anything is asked that would go round.
    if (!reached() && servant_->leads_back(peer)) return Seen::nobody;
    const std::uint64_t life = servant_->peer_life(peer, true);
    if (reached() && life == life_) return Seen::same;
    if (reached() && servant_->leads_back(peer)) return Seen::nobody;
    peer_ = Varo::DT_PORT_SVC::Port_Factory::_duplicate(peer);
    life_ = life;
    settled_ = false;
    return Seen::another;
  } catch (const CORBA::Exception&) {
    return Seen::nobody;  // it has gone again
  }
}
