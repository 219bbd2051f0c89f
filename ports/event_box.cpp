#include "ports/event_box.h"

#include <ace/Guard_T.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <optional>
#include <utility>

#include "platform/clock.h"
#include "platform/memory.h"
#include "platform/wait.h"
#include "ports/servant_hooks.h"

using namespace portsvc;

namespace {

constexpr std::int64_t idle_seconds = 120;  // a box not read for longer has expired
constexpr std::size_t many_events = 10000;  // dropping so many is worth giving the memory back

}  // namespace

vrEventBox::vrEventBox(const char* name, unsigned int port_id, unsigned int limit,
                       Port_Factory_i* servant)
    : Port_impl(name, port_id, limit, PORT_EVENTBOX),
      servant_(servant),
      last_access_(calendar_seconds()) {}

Event_ptr vrEventBox::drop_oldest() {
  Event_ptr oldest;
  if (events_.size() > limit()) {
    oldest = std::move(events_.front());
    events_.pop_front();
    ++flow_.dropped;
  }
  return oldest;
}

Event_ptr vrEventBox::append(const Event_ptr& event) {
  try {
    events_.push_back(event);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return {};
  }
  ++flow_.put;
  return drop_oldest();
}

void vrEventBox::push_event(const Event_ptr& event) {
  Event_ptr dropped;  // let go, like the others below, after the lock is released
  {
    ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, box_lock_);
    dropped = append(event);
  }
  something_changed(packets());
}

void vrEventBox::push_events(const std::vector<Event_ptr>& events) {
  // Those that others push out again at once are not put in.
  const std::size_t count = std::min(events.size(), most_kept(*this));
  std::vector<Event_ptr> dropped;
  dropped.reserve(count);
  {
    ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, box_lock_);
    for (auto event = events.end() - static_cast<std::ptrdiff_t>(count); event != events.end();
         ++event) {
      dropped.push_back(append(*event));
    }
    flow_.put += events.size() - count;
    flow_.dropped += events.size() - count;
  }
  something_changed(packets(), static_cast<unsigned int>(events.size()));
}

void vrEventBox::count_never_made(std::uint64_t events) {
  if (events == 0) return;
  ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, box_lock_);
  flow_.put += events;
  flow_.dropped += events;
}

void vrEventBox::push_event_front(const Event_ptr& event) {
  Event_ptr dropped;
  {
    ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, box_lock_);
    dropped = drop_oldest();
    try {
      events_.push_front(event);
      ++flow_.put;
    } catch (const std::bad_alloc&) {
      errno = ENOMEM;
    }
  }
  something_changed(packets());
}

void vrEventBox::clear_events() {
  Events dropped;  // let go after the lock is released: a million events take a while to free
  {
    ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, box_lock_);
    dropped.swap(events_);
    flow_.cleared += dropped.size();
  }
  const bool many = dropped.size() >= many_events;
  Events().swap(dropped);
  if (many) return_freed_memory();
}

unsigned int vrEventBox::event_count() {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, box_lock_, 0);
  return static_cast<unsigned int>(events_.size());
}

unsigned int vrEventBox::forward(unsigned int handle, vrBuffer data, unsigned int) {
  return static_cast<unsigned int>(
      servant::process_event_data(servant_, this, handle, data, false));
}

unsigned int vrEventBox::forward_front(unsigned int handle, vrBuffer data, unsigned int) {
  return static_cast<unsigned int>(servant::process_event_data(servant_, this, handle, data, true));
}

unsigned int vrEventBox::connect(unsigned int, unsigned int mode, unsigned int access,
                                 unsigned int& owner) {
  switch (mode) {
    case CONNECT_CLIENT:
      owner = 0;
      return result::ok;
    case CONNECT_OWNER: {
      // A connected owner is reported first, whatever access the second one asks for.
      ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, result::port_lock);
      if (!owner_connected_ && access == ACCESS_SELECT) return result::access_refused;
      return connect_owner(access, owner);
    }
    default:
      return result::bad_mode;
  }
}

unsigned int vrEventBox::receive(unsigned int& source, vrBuffer& data, unsigned int timeout) {
  last_access_ = calendar_seconds();
  vrPort_Buffer packet;
  const unsigned int taken = take_packet(packet, timeout);
  if (taken == result::ok) {
    source = packet.handle();
    data = static_cast<vrBuffer&&>(packet);
  }
  return taken;
}

unsigned int vrEventBox::receive_n(unsigned int& source, std::vector<Event_ptr>& events,
                                   unsigned int maximum, unsigned int timeout) {
  last_access_ = calendar_seconds();
  const unsigned int taken = take_events(events, maximum, timeout);
  if (taken == result::ok) source = events.front()->handle();
  return taken;
}

unsigned int vrEventBox::replay(unsigned int, vrBuffer, unsigned int) { return result::ok; }

unsigned int vrEventBox::replay_wait(unsigned int, vrBuffer&, unsigned int) { return result::ok; }

unsigned int vrEventBox::wait_receiver(unsigned int, unsigned int) { return result::ok; }

unsigned int vrEventBox::take_reply(unsigned int, unsigned int, vrPort_Buffer&) {
  return result::ok;
}

template <class Take>
unsigned int vrEventBox::wait_for_events(unsigned int timeout, Take&& take) {
  const Topic topic = packets();
  bool caller_gone = false;
  const Waiting waiting(takers_waiting_);
  const unsigned int taken = wait(
      timeout, result::timed_out, {this, &topic, 1},
      [&](const Caller* caller) -> std::optional<unsigned int> {
        {
          ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, box_lock_, result::port_lock);
          if (!events_.empty()) {
            caller_gone = gone(caller);
            if (caller_gone) return result::timed_out;
            take();
            return result::ok;
          }
        }
        if (timeout == 0) return result::timed_out;  // a box reads 0 as: do not wait
        return std::nullopt;
      },
      [&]() -> std::optional<unsigned int> {
        if (owner_access() == ACCESS_WAIT) return std::nullopt;
        return result::nothing_arrived;
      });
  if (caller_gone) something_changed(packets());  // what it was woken for is somebody else's
  return taken;
}

unsigned int vrEventBox::take_packet(vrPort_Buffer& out, unsigned int timeout) {
  Event_ptr event;
  const unsigned int taken = wait_for_events(timeout, [&] {
    event = std::move(events_.front());
    events_.pop_front();
    ++flow_.taken;
  });
  if (taken == result::ok) {
    // Only the payload: `out` keeps its own handle. Nobody else can reach an event whose last
    // reference this is, so its bytes need no copy.
    if (event.use_count() == 1) {
      static_cast<vrBuffer&>(out) = static_cast<vrBuffer&&>(*event);
    } else {
      static_cast<vrBuffer&>(out) = static_cast<const vrBuffer&>(*event);
    }
  }
  return taken;
}

unsigned int vrEventBox::take_events(std::vector<Event_ptr>& events, unsigned int maximum,
                                     unsigned int timeout) {
  return wait_for_events(timeout, [&] {
    events.reserve(std::min<std::size_t>(maximum, events_.size()));
    do {
      events.push_back(std::move(events_.front()));
      events_.pop_front();
      ++flow_.taken;
    } while (!events_.empty() && events.size() < maximum);
  });
}

Port_Figures vrEventBox::figures() {
  Port_Figures figures = Port_impl::figures();
  figures.persistent = persistent();
  figures.copied = copy_enable() != 0;
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, box_lock_, figures);
  figures.packets = flow_;
  figures.packets.queued = events_.size();
  return figures;
}

bool vrEventBox::expired() const {
  return !persistent() && calendar_seconds() > last_access_ + idle_seconds;
}
