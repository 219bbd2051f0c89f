#include "roles/event_forwarding.h"

#include <ace/Guard_T.h>

#include <algorithm>
#include <new>
#include <utility>

#include "idl/port_codes.h"
#include "middleware/orb/orb.h"
#include "middleware/reference_container.h"
#include "platform/clock.h"
#include "platform/counters.h"
#include "ports/wire.h"

using namespace portsvc;

namespace {

constexpr std::size_t pending_limit = 3000;
const ACE_Time_Value idle_pause(4, 0);
const ACE_Time_Value yield(0, 0);

bool is_delivery_failure(unsigned int answer) {
  return (answer >= 99 && answer <= 199) || answer == result::unknown_name;
}

}  // namespace

SendEventRequest::SendEventRequest(const char* port_name, const char* server, const char* realm,
                                   const vrBuffer& data, unsigned int handle, bool front)
    : handle_(handle),
      front_(front),
      data_(data),
      counted_(data.size()),
      port_name_(port_name),
      server_(server),
      realm_(realm ? realm : "") {}

unsigned int SendEventRequest::execute() {
  const char* const realm = realm_.empty() ? nullptr : realm_.c_str();
  vrReferenceContainer* const container = vrReferenceContainer::instance();
  const Varo::DT_PORT_SVC::Port_Factory_var peer =
      container->GetPortReferenceWithServerName(server_.c_str(), realm);
  if (CORBA::is_nil(peer.in())) return result::no_peer;
  try {
    const orb::CallTimeout scope;
    const Varo::DATA_BUFFER_var bytes = to_wire(vrBuffer(data_));
    return front_ ? peer->update_port_front(port_name_.c_str(), handle_, bytes.in())
                  : peer->update_port(port_name_.c_str(), handle_, bytes.in());
  } catch (const CORBA::Exception&) {
    container->ReleasePortReference(server_.c_str(), realm);
    return result::peer_forward;
  } catch (const std::bad_alloc&) {
    return result::out_of_memory;  // this copy is lost
  }
}

EventSendTask::~EventSendTask() {
  stop();
  wait();
}

void EventSendTask::push_request(SendEventRequest* request) {
  std::unique_ptr<SendEventRequest> owned(request);
  Requests discarded;  // destroyed after the lock is released
  if (!owned) return;
  count(queued_);
  {
    ACE_GUARD(ACE_Thread_Mutex, guard, queue_lock_);
    if (requests_.size() <= pending_limit) {
      requests_.push_back(std::move(owned));
    } else {
      discarded.swap(requests_);
      discarded.push_back(std::move(owned));
    }
  }
  count(lost_, discarded.size());
  something_changed(requests());
}

Forwarded EventSendTask::figures() const {
  Forwarded figures;
  figures.sent = sent_.load(std::memory_order_relaxed);
  figures.lost = lost_.load(std::memory_order_relaxed);
  const std::uint64_t done = figures.sent + figures.lost;
  figures.pending = std::max(queued_.load(std::memory_order_relaxed), done) - done;
  return figures;
}

void EventSendTask::stop() {
  stop_ = true;
  something_changed(requests());
}

bool EventSendTask::has_work() {
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, queue_lock_, false);
  return stop_ || !requests_.empty();
}

int EventSendTask::svc() {
  while (!stop_) {
    Requests batch;
    {
      ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, queue_lock_, 0);
      batch.swap(requests_);
    }
    if (batch.empty()) {
      const Topic topic = requests();
      portsvc::clock().rest(idle_pause, {&stop_, &topic, 1}, [this] { return has_work(); });
      continue;
    }
    std::size_t done = 0;
    for (const auto& request : batch) {
      if (stop_) break;
      const unsigned int answer = request->execute();
      if (is_delivery_failure(answer)) break;
      ++done;
      count(answer == result::ok ? sent_ : lost_);  // it may neither have nor find the box
      portsvc::clock().pause(yield, &stop_);
    }
    count(lost_, batch.size() - done);
    portsvc::clock().pause(yield, &stop_);
  }
  return 0;
}
