// Binds the connection manager to a sub server.
#pragma once

#include "middleware/connect_manager.h"

class Port_Factory_Sub;

/// Tells a sub-role servant that its main server has been reached, and beats its heart.
class vrPortConnect_Manager : public vrConnect_Manager {
 public:
  /// `first` and `second` are the main server's name and realm. The servant is not owned, is
  /// activated here if it was not yet, and must outlive the manager, as must the reactor.
  vrPortConnect_Manager(const char* first, const char* second, Port_Factory_Sub* servant,
                        ACE_Reactor* reactor);
  ~vrPortConnect_Manager() override;

  /// The servant's back_call_. A restarted main server, and one that the directory leads to
  /// instead, is reached anew.
  unsigned int on_connected(CORBA::Object_var& object) override;
  /// The servant's heart_bit; while the main server is reached, also its settle().
  void on_heartbeat() override;

 protected:
  Seen look_at(Varo::DT_PORT_SVC::Port_Factory_ptr peer) override;

 private:
  // Used by the beats alone.
  Varo::DT_PORT_SVC::Port_Factory_var peer_;
  std::uint64_t life_ = 0;
  bool settled_ = false;

  Port_Factory_Sub* const servant_;
};
