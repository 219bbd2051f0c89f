#include "ports/buffer_queue.h"

#include <ace/Guard_T.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "idl/port_codes.h"

using namespace portsvc;

void vrPort_Buffer_Queue::clear() {
  Entries dropped;  // destroyed after the lock is released
  ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, lock_);
  dropped.swap(entries_);
  flow_.cleared += dropped.size();
}

void vrPort_Buffer_Queue::set_limit(unsigned int limit) {
  ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, lock_);
  limit_.store(limit, std::memory_order_relaxed);
}

unsigned int vrPort_Buffer_Queue::is_empty() {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, lock_, result::port_lock);
  return entries_.empty() ? 1 : 0;
}

void vrPort_Buffer_Queue::push(unsigned int handle, const vrBuffer& data) {
  push_back(vrPort_Buffer(handle, vrBuffer(data)));
}

void vrPort_Buffer_Queue::push(unsigned int handle, vrBuffer&& data) {
  push_back(vrPort_Buffer(handle, std::move(data)));
}

void vrPort_Buffer_Queue::push_back(const vrPort_Buffer& packet) {
  push_back(vrPort_Buffer(packet));
}

void vrPort_Buffer_Queue::push_back(vrPort_Buffer&& packet) {
  std::unique_ptr<unsigned char[]> dropped;  // freed after the lock is released
  ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, lock_);
  try {
    const unsigned int size = packet.size();
    entries_.push_back(Entry{packet.handle(), Queued_Bytes(size), packet.release()});
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return;
  }
  ++flow_.put;
  if (entries_.size() > limit_) {
    ++flow_.dropped;
    dropped = std::move(entries_.front().bytes);
    entries_.pop_front();
  }
}

unsigned int vrPort_Buffer_Queue::pop(unsigned int handle, vrPort_Buffer& out) {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, lock_, result::port_lock);
  if (handle == any_handle) {
    if (entries_.empty()) return result::nothing_arrived;
    hand_over(entries_.front(), out);
    entries_.pop_front();
    ++flow_.taken;
    return result::ok;
  }
  const auto found = std::find_if(entries_.begin(), entries_.end(),
                                  [=](const Entry& entry) { return entry.handle == handle; });
  if (found == entries_.end()) return result::unknown_name;
  hand_over(*found, out);
  entries_.erase(found);
  ++flow_.taken;
  return result::ok;
}

Flow vrPort_Buffer_Queue::flow() {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, lock_, {});
  Flow flow = flow_;
  flow.queued = entries_.size();
  return flow;
}

void vrPort_Buffer_Queue::hand_over(Entry& entry, vrPort_Buffer& out) {
  out = vrPort_Buffer(entry.handle, vrBuffer(entry.counted.payload(), std::move(entry.bytes)));
}

unsigned int vrPort_Buffer_Queue::find(unsigned int handle) {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, lock_, result::port_lock);
  if (entries_.empty()) return result::queue_empty;
  const bool queued = std::any_of(entries_.begin(), entries_.end(),
                                  [=](const Entry& entry) { return entry.handle == handle; });
  return queued ? result::ok : result::unknown_name;
}
