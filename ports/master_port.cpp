#include "ports/master_port.h"

#include <ace/Guard_T.h>

#include <optional>
#include <utility>

#include "platform/wait.h"

using namespace portsvc;

vrMaster_Port::vrMaster_Port(const char* name, unsigned int port_id, unsigned int limit,
                             Port_Factory_i*)
    : Port_impl(name, port_id, limit, PORT_MASTER) {
  reply_queue_.set_limit(reply_limit);
}

unsigned int vrMaster_Port::forward(unsigned int handle, vrBuffer data, unsigned int timeout) {
  return admit(handle, timeout, [&] {
    packet_queue_.push(handle, std::move(data));
    something_changed(packets());
  });
}

unsigned int vrMaster_Port::forward_front(unsigned int, vrBuffer, unsigned int) {
  return result::ok;
}

unsigned int vrMaster_Port::connect(unsigned int handle, unsigned int mode, unsigned int access,
                                    unsigned int& owner) {
  switch (mode) {
    case CONNECT_CLIENT:
      return connect_client(handle, access, owner);
    case CONNECT_OWNER:
      return connect_owner(access, owner);
    default:
      return result::bad_mode;
  }
}

unsigned int vrMaster_Port::receive(unsigned int& source, vrBuffer& data, unsigned int timeout) {
  vrPort_Buffer packet;
  const unsigned int taken = take_packet(packet, timeout);
  if (taken == result::ok) {
    source = packet.handle();
    data = static_cast<vrBuffer&&>(packet);
  }
  return taken;
}

unsigned int vrMaster_Port::replay(unsigned int handle, vrBuffer data, unsigned int) {
  reply_queue_.push(handle, std::move(data));
  something_changed(replies(handle));
  return result::ok;
}

unsigned int vrMaster_Port::replay_wait(unsigned int handle, vrBuffer& data, unsigned int timeout) {
  vrPort_Buffer reply;
  const unsigned int taken = take_reply(handle, timeout, reply);
  if (taken == result::ok) data = static_cast<vrBuffer&&>(reply);
  return taken;
}

unsigned int vrMaster_Port::take_packet(vrPort_Buffer& out, unsigned int timeout) {
  bool waits = false;
  const Waiting waiting(takers_waiting_);
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, result::port_lock);
    receiver_waiting_ = true;
    ++takers_;
    waits = owner_access_ == ACCESS_WAIT;
  }
  if (waits) {
    something_changed_for_me(admission());
  } else {  // a take that gives up after its pause finds what was there before it
    something_changed(admission());
  }
  const Topic topic = packets();
  const unsigned int taken = wait(
      timeout, result::timed_out, {this, &topic, 1},
      [&](const Caller* caller) -> std::optional<unsigned int> {
        if (caller && packet_queue_.is_empty() == 0 && gone(caller)) return result::timed_out;
        if (packet_queue_.pop(any_handle, out) == result::ok) return result::ok;
        return std::nullopt;
      },
      [&]() -> std::optional<unsigned int> {
        ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, result::port_lock);
        if (owner_access_ == ACCESS_WAIT) return std::nullopt;
        return result::nothing_arrived;
      });
  return end_take(taken, taken == result::timed_out && gone(Caller::of_this_thread()));
}

// A caller that has gone takes back what its take allowed only when nobody else is taking: the flag
// may be that of a take begun since. What it was woken for is somebody else's.
unsigned int vrMaster_Port::end_take(unsigned int result, bool caller_gone) {
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, result::port_lock);
    --takers_;
    if (!caller_gone || takers_ == 0) receiver_waiting_ = false;
  }
  if (caller_gone) something_changed(packets());
  return result;
}

unsigned int vrMaster_Port::wait_receiver(unsigned int handle, unsigned int timeout) {
  return admit(handle, timeout, [] {});
}

unsigned int vrMaster_Port::admit(unsigned int handle, unsigned int timeout,
                                  const std::function<void()>& enter) {
  unsigned int sender_access = 0;
  bool selected = false;
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, result::port_lock);
    sender_access = client_access(handle);
  }
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, result::port_lock);
    selected = owner_access_ == ACCESS_SELECT && has_selectors() && owner_connected_;
  }
  if (selected) {
    enter();
    return result::ok;
  }
  const Waiting waiting(senders_waiting_);
  const Topic topic = admission();
  return wait(
      timeout, result::send_timed_out, {this, &topic, 1},
      [&](const Caller* caller) -> std::optional<unsigned int> {
        {
          ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, result::port_lock);
          if (!receiver_waiting_) return std::nullopt;
          if (gone(caller)) return result::send_timed_out;
          receiver_waiting_ = false;  // this take has got its packet
        }
        enter();
        return result::ok;
      },
      [&]() -> std::optional<unsigned int> {
        if (sender_access == ACCESS_WAIT) return std::nullopt;
        ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, result::port_lock);
        if (owner_connected_) return result::owner_not_taking;
        return receiver_waiting_ ? result::not_connected : result::unknown_handle;
      });
}

unsigned int vrMaster_Port::take_reply(unsigned int handle, unsigned int timeout,
                                       vrPort_Buffer& out) {
  unsigned int client_mode = 0;
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, result::port_lock);
    client_mode = client_access(handle);
  }
  const Waiting waiting(reply_takers_waiting_);
  const Topic topic = replies(handle);
  return wait(
      timeout, result::reply_timed_out, {this, &topic, 1},
      [&](const Caller* caller) -> std::optional<unsigned int> {
        if (caller && reply_queue_.find(handle) == result::ok && gone(caller)) {
          return result::reply_timed_out;
        }
        if (reply_queue_.pop(handle, out) == result::ok) return result::ok;
        return std::nullopt;
      },
      [&]() -> std::optional<unsigned int> {
        if (client_mode == ACCESS_WAIT) return std::nullopt;
        return result::nothing_arrived;
      });
}
