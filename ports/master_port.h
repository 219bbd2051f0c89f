// The packet port whose owner this server serves.
#pragma once

#include <functional>

#include "ports/port_impl.h"

class Port_Factory_i;

/// Clients forward packets into it, the owner takes them one at a time and answers, each client
/// takes the replies addressed to it. A forward is admitted only while the owner is inside a take
/// (one packet per take), or at any time while an owner selects on the port. Its event slots do
/// nothing.
class vrMaster_Port : public Port_impl {
 public:
  vrMaster_Port(const char* name, unsigned int port_id, unsigned int limit,
                Port_Factory_i* servant);

  void clear_events() override {}
  unsigned int event_count() override { return 0; }
  /// 0 once the packet is queued, or what wait_receiver answers.
  unsigned int forward(unsigned int handle, vrBuffer data, unsigned int timeout) override;
  /// 0; the packet is dropped.
  unsigned int forward_front(unsigned int handle, vrBuffer data, unsigned int timeout) override;
  unsigned int connect(unsigned int handle, unsigned int mode, unsigned int access,
                       unsigned int& owner) override;
  void push_event(const Event_ptr&) override {}
  void push_event_front(const Event_ptr&) override {}
  unsigned int receive(unsigned int& source, vrBuffer& data, unsigned int timeout) override;
  /// 0; the oldest reply beyond 32 is dropped. The handle is not checked.
  unsigned int replay(unsigned int handle, vrBuffer data, unsigned int timeout) override;
  unsigned int replay_wait(unsigned int handle, vrBuffer& data, unsigned int timeout) override;
  /// 0; 2000 when the time is used up; 2003 when nothing came and the owner does not block.
  unsigned int take_packet(vrPort_Buffer& out, unsigned int timeout) override;
  /// 0 when a packet may be queued; 2017 when the time is used up; for a sender that does not block
  /// 2006 (owner not taking), 2005 (somebody takes who is not connected) or 2007 (neither).
  unsigned int wait_receiver(unsigned int handle, unsigned int timeout) override;
  /// 0; 2016 when the time is used up; 2003 when no reply came and the client does not block.
  unsigned int take_reply(unsigned int handle, unsigned int timeout, vrPort_Buffer& out) override;

 private:
  /// As wait_receiver; an admitted sender enters, maybe on the thread of the take that admits it.
  unsigned int admit(unsigned int handle, unsigned int timeout, const std::function<void()>& enter);
  unsigned int end_take(unsigned int result, bool caller_gone);
};
