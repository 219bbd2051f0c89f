// Copies of a main server's event data on their way to the sub servers.
#pragma once

#include <ace/Task.h>
#include <ace/Thread_Mutex.h>

#include <atomic>
#include <deque>
#include <memory>
#include <string>

#include "platform/limits.h"
#include "platform/wake.h"
#include "ports/buffer.h"
#include "ports/figures.h"

/// One copy for one sub server. It owns all it needs and refers to nothing.
class SendEventRequest {
 public:
  /// `realm` may be null for none.
  SendEventRequest(const char* port_name, const char* server, const char* realm,
                   const vrBuffer& data, unsigned int handle, bool front);
  virtual ~SendEventRequest() = default;
  SendEventRequest(const SendEventRequest&) = delete;
  SendEventRequest& operator=(const SendEventRequest&) = delete;

  /// Delivers the copy with update_port, or update_port_front. The sub server's own answer; 99
  /// when there is no reference to it; 112 on a broker exception, after which the reference is
  /// looked up afresh; 5. Takes at most the peer call time-out.
  virtual unsigned int execute();

 private:
  const unsigned int handle_;
  const bool front_;
  const vrBuffer data_;
  const portsvc::Queued_Bytes counted_;
  const std::string port_name_;
  const std::string server_;
  const std::string realm_;  // empty means none
};

/// Sends the copies of one port, to all sub servers, in the order in which they were queued, on a
/// thread of its own. More than 3000 waiting copies are all discarded. A copy that cannot be
/// delivered (99 to 199, or 2001) discards the rest of the batch it was taken out in.
class EventSendTask : public ACE_Task_Base {
 public:
  EventSendTask() = default;
  /// Ends the thread and discards what is pending.
  ~EventSendTask() override;

  /// Queues a copy and takes it over. A null one is ignored.
  void push_request(SendEventRequest* request);

  /// Asks the thread to end. It does so when the call it is in returns, or within its idle pause of
  /// 4 seconds, which early waking (platform/wake.h) ends at once, as the first request does.
  /// Returns at once.
  void stop();

  int svc() override;

  portsvc::Forwarded figures() const;

 private:
  using Requests = std::deque<std::unique_ptr<SendEventRequest>>;

  portsvc::Topic requests() const { return {this, 0}; }
  bool has_work();

  std::atomic<bool> stop_{false};
  std::atomic<std::uint64_t> queued_{0};
  std::atomic<std::uint64_t> sent_{0};
  std::atomic<std::uint64_t> lost_{0};
  ACE_Thread_Mutex queue_lock_;  // guards requests_; a leaf
  Requests requests_;
};
