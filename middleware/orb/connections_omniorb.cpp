// The broker's connections: those that clients have to this process, and those it opens itself.
#include "middleware/orb/connections_omniorb.h"

#include <omniORB4/omniInterceptors.h>

#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "idl/port_codes.h"
#include "middleware/orb/omniorb_internals.h"
#include "middleware/orb/orb.h"
#include "middleware/orb/wire_bytes.h"
#include "platform/counters.h"
#include "platform/limits.h"
#include "platform/sockets.h"

namespace portsvc::orb {
namespace {

/// Counts the connections this process opens, by the address of the peer.
class ConnectionCounter {
 public:
  void opened(const std::string& address) {
    const std::lock_guard<std::mutex> guard(lock_);
    ++total_;
    ++by_address_[address];
  }

  std::uint64_t total() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return total_;
  }

  std::uint64_t to(const std::string& address) const {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto found = by_address_.find(address);
    return found == by_address_.end() ? 0 : found->second;
  }

 private:
  mutable std::mutex lock_;  ///< guards both counts; nothing is taken under it
  std::uint64_t total_ = 0;
  std::map<std::string, std::uint64_t> by_address_;
};

ConnectionCounter& connection_counter() {
  static ConnectionCounter counter;
  return counter;
}

// A reply that is not taken: the broker's own time-out would make the socket non-blocking and poll
// it for every reply, a sixth of what the server does for a small call. The kernel watches it for
// nothing, so it watches the connection and the reply is sent without the broker's time-out. A
// request that stops half-way keeps that one, once its first buffer is full; one that stops before
// has not begun for the broker, and ends with its scan for idle connections.
std::chrono::milliseconds message_timeout{0};

std::atomic<std::uint64_t> taken_connections{0};
// Null before the first connection and once the broker goes.
std::atomic<const _OMNI_NS(giopServer)*> connection_server{nullptr};

// A peer whose machine is gone says nothing; while it owes no answer only such probes find out. The
// kernel gives the connection up once they have gone unanswered for the time-out above.
constexpr std::chrono::seconds before_probes(10);
constexpr std::chrono::seconds between_probes(5);

CORBA::Boolean watch_connection(
    _OMNI_NS(omniInterceptors)::serverAcceptConnection_T::info_T& info) {
  const auto& server = server_of(info.strand);
  if (!limits().connections.allows(connections_of(server) - 1)) {  // it counts itself
    info.reject = true;
    info.why = "limit of connections";
    return false;
  }
  count(taken_connections);
  connection_server.store(&server, std::memory_order_relaxed);
  give_up_dead_connection(socket_of(info.strand), message_timeout, before_probes, between_probes);
  return true;
}

CORBA::Boolean leave_reply_to_kernel(_OMNI_NS(omniInterceptors)::serverSendReply_T::info_T& info) {
  clear_deadline(info.giop_s);
  return true;
}

/// Set while this thread must not open connections.
thread_local bool* refused_connection = nullptr;
/// Set when a request of this thread is begun on a connection.
thread_local bool request_begun = false;

CORBA::Boolean note_request(_OMNI_NS(omniInterceptors)::clientSendRequest_T::info_T&) {
  request_begun = true;
  return true;
}

CORBA::Boolean count_connection(_OMNI_NS(omniInterceptors)::clientOpenConnection_T::info_T& info) {
  if (refused_connection) {
    *refused_connection = true;
    info.reject = true;
    return false;
  }
  connection_counter().opened(info.peeraddress());
  return true;
}

// The service context in which connect_port says which server calls; others ignore it.
constexpr CORBA::ULong server_name_context = 0x50530001;

std::string& own_name() {
  static std::string name;
  return name;
}

CORBA::Boolean add_own_name(_OMNI_NS(omniInterceptors)::clientSendRequest_T::info_T& info) {
  const std::string& name = own_name();
  if (name.empty() || std::strcmp(info.operation(), "connect_port") != 0) return true;
  const CORBA::ULong last = info.service_contexts.length();
  info.service_contexts.length(last + 1);
  IOP::ServiceContext& context = info.service_contexts[last];
  context.context_id = server_name_context;
  context.context_data.length(static_cast<CORBA::ULong>(name.size()));
  std::memcpy(context.context_data.get_buffer(), name.data(), name.size());
  return true;
}

}  // namespace

void watch_connections(std::chrono::milliseconds timeout) {
  message_timeout = timeout;
  _OMNI_NS(omniInterceptors)& interceptors = *omniORB::getInterceptors();
  interceptors.clientOpenConnection.add(count_connection);
  interceptors.clientSendRequest.add(add_own_name);
  interceptors.clientSendRequest.add(note_request);
  interceptors.serverAcceptConnection.add(watch_connection);
  interceptors.serverSendReply.add(leave_reply_to_kernel);
}

void forget_connections() { connection_server = nullptr; }

bool Remote_Caller::gone() const {
  const int socket = socket_of(call_);
  return socket >= 0 && other_end_gone(socket);
}

std::string Remote_Caller::server() const {
  const IOP::ServiceContextList* const contexts = service_contexts_of(call_);
  for (CORBA::ULong i = 0; contexts && i < contexts->length(); ++i) {
    if ((*contexts)[i].context_id != server_name_context) continue;
    const auto& name = (*contexts)[i].context_data;
    return std::string(reinterpret_cast<const char*>(name.get_buffer()), name.length());
  }
  return {};
}

void tell_own_name(const std::string& name) { own_name() = name; }

std::uint64_t connections_served() {
  const auto* const server = connection_server.load(std::memory_order_relaxed);
  return server ? connections_of(*server) : 0;
}

std::uint64_t connections_taken() { return taken_connections.load(std::memory_order_relaxed); }

OpenConnectionsOnly::OpenConnectionsOnly(bool& refused) {
  refused_connection = &refused;
  request_begun = false;
}

bool OpenConnectionsOnly::had_connection() const { return request_begun; }

OpenConnectionsOnly::~OpenConnectionsOnly() { refused_connection = nullptr; }

std::uint64_t connections_opened(CORBA::Object_ptr object) {
  if (CORBA::is_nil(object)) return 0;
  const omniIOR_var ior = object->_PR_getobj()->_getIOR();
  std::uint64_t count = 0;
  for (const auto* address : ior->getIORInfo()->addresses()) {
    // The connections are known by numeric address. A host's name may stand for several of them
    // and change its meaning, so the whole count is the one that cannot miss a connection.
    if (!address->host() || address_octets(address->host()).empty()) {
      return connection_counter().total();
    }
    count += connection_counter().to(address->address());
  }
  return count;
}

}  // namespace portsvc::orb
