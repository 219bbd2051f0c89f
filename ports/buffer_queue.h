// The bounded queue of packets or replies that every port carries twice.
#pragma once

#include <ace/Recursive_Thread_Mutex.h>

#include <atomic>
#include <boost/container/deque.hpp>

#include "platform/limits.h"
#include "ports/buffer.h"
#include "ports/figures.h"

/// First-in-first-out queue with a limit; beyond it the oldest entry is dropped silently.
/// Thread-safe: every operation but limit() holds the queue's lock for its whole run. A lock that
/// cannot be taken answers 2011 (port_lock), or does nothing where there is no result.
class vrPort_Buffer_Queue {
 public:
  vrPort_Buffer_Queue() = default;
  virtual ~vrPort_Buffer_Queue() = default;
  vrPort_Buffer_Queue(const vrPort_Buffer_Queue&) = delete;
  vrPort_Buffer_Queue& operator=(const vrPort_Buffer_Queue&) = delete;

  /// Drops all entries.
  void clear();
  /// Changes the limit and drops nothing: a push drops one entry at most, so a queue that holds
  /// more than a lowered limit stays as long as it is until entries are taken.
  void set_limit(unsigned int limit);
  /// Reads the limit without the lock.
  unsigned int limit() const { return limit_.load(std::memory_order_relaxed); }
  /// 1 when empty, 0 when not, 2011 when the lock cannot be taken.
  unsigned int is_empty();

  /// Appends `data` tagged with `handle`; an overfull queue then drops its oldest entry. With
  /// limit 0 nothing is ever kept.
  void push(unsigned int handle, const vrBuffer& data);
  void push(unsigned int handle, vrBuffer&& data);
  void push_back(const vrPort_Buffer& packet);
  void push_back(vrPort_Buffer&& packet);

  /// Takes the oldest entry with `handle` into `out`; any_handle takes the oldest of all.
  /// 0; 2003 when empty (any_handle); 2001 when there is none for the handle; 2011.
  unsigned int pop(unsigned int handle, vrPort_Buffer& out);
  /// 0 when an entry for `handle` is queued, 2001 when only others are, 2002 when empty, 2011.
  unsigned int find(unsigned int handle);
  portsvc::Flow flow();

 private:
  // Not a vrPort_Buffer: the assignment of those skips empty payloads, which the deque must not
  // do when it closes the gap behind an entry taken from the middle.
  struct Entry {
    unsigned int handle;
    portsvc::Queued_Bytes counted;  // knows the size
    std::unique_ptr<unsigned char[]> bytes;
  };
  // Unlike std::deque this one allocates nothing while it is empty: an idle port stays small.
  using Entries = boost::container::deque<Entry>;

  static void hand_over(Entry& entry, vrPort_Buffer& out);

  ACE_Recursive_Thread_Mutex lock_;  // guards entries_, flow_ and writes of limit_; a leaf
  Entries entries_;                  // front is the oldest
  portsvc::Flow flow_;               // but for `queued`
  std::atomic<unsigned int> limit_{1};
};
