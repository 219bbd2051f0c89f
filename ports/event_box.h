// The port that holds events.
#pragma once

#include <ace/Recursive_Thread_Mutex.h>

#include <atomic>
#include <boost/container/deque.hpp>
#include <cstdint>

#include "ports/port_impl.h"

class Port_Factory_i;

/// Holds at most its limit of events, shared with every other box they were declared to, and drops
/// the oldest beyond that; events put in at the front may stand one above the limit. A box that is
/// not persistent and that nobody has read for more than 120 seconds has expired.
class vrEventBox : public Port_impl {
 public:
  vrEventBox(const char* name, unsigned int port_id, unsigned int limit, Port_Factory_i* servant);

  void push_events(const std::vector<Event_ptr>& events) override;
  /// Counts events that were not made because this box would have dropped them at once.
  void count_never_made(std::uint64_t events);
  void clear_events() override;
  unsigned int event_count() override;
  /// Hands the packet to the role's process_event_data and answers what that does.
  unsigned int forward(unsigned int handle, vrBuffer data, unsigned int timeout) override;
  unsigned int forward_front(unsigned int handle, vrBuffer data, unsigned int timeout) override;
  /// Client: 0, nothing is recorded. Owner: 0, 2004, or 2008 for ACCESS_SELECT.
  unsigned int connect(unsigned int handle, unsigned int mode, unsigned int access,
                       unsigned int& owner) override;
  void push_event(const Event_ptr& event) override;
  void push_event_front(const Event_ptr& event) override;
  /// `source` becomes 0.
  unsigned int receive(unsigned int& source, vrBuffer& data, unsigned int timeout) override;
  /// `source` becomes the handle of the first event delivered.
  unsigned int receive_n(unsigned int& source, std::vector<Event_ptr>& events, unsigned int maximum,
                         unsigned int timeout) override;
  unsigned int replay(unsigned int, vrBuffer, unsigned int) override;
  unsigned int replay_wait(unsigned int, vrBuffer&, unsigned int) override;
  /// 0; 2000 when the time is used up, at once with time-out 0; 2003 when nothing came and the
  /// owner does not block.
  unsigned int take_packet(vrPort_Buffer& out, unsigned int timeout) override;
  unsigned int wait_receiver(unsigned int, unsigned int) override;
  unsigned int take_reply(unsigned int, unsigned int, vrPort_Buffer&) override;
  portsvc::Port_Figures figures() override;

  /// Up to `maximum` events, at least one, in one hold of the lock. Results as take_packet.
  unsigned int take_events(std::vector<Event_ptr>& events, unsigned int maximum,
                           unsigned int timeout);

  /// The most events a box can hold: its limit, and one more after one was put in at the front.
  static std::size_t most_kept(const Port_impl& box) { return std::size_t{box.limit()} + 1; }

  /// Not persistent, and neither read nor created within the last 120 seconds.
  bool expired() const;
  bool persistent() const { return persistent_.load(std::memory_order_relaxed); }
  void set_persistent(bool value) { persistent_.store(value, std::memory_order_relaxed); }

 private:
  // Allocates nothing while it is empty.
  using Events = boost::container::deque<Event_ptr>;

  // Waits until take(), called under the box lock while the box holds events, has taken some.
  template <class Take>
  unsigned int wait_for_events(unsigned int timeout, Take&& take);
  // The caller holds the box lock. Both answer the event that the overflow rule drops, if any, for
  // the caller to let go after the lock.
  Event_ptr append(const Event_ptr& event);
  Event_ptr drop_oldest();

  std::atomic<bool> persistent_{true};
  Port_Factory_i* const servant_;          // not owned
  std::atomic<std::int64_t> last_access_;  // calendar seconds
  ACE_Recursive_Thread_Mutex box_lock_;    // guards events_ and flow_; a leaf
  Events events_;                          // front is the oldest
  portsvc::Flow flow_;                     // but for `queued`
};
