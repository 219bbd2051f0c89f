// The broker as built here: the parts of orb.h that differ from other brokers.
#include "middleware/orb/orb.h"

#include <fmt/format.h>
#include <omniORB4/linkHacks.h>
#include <omniORB4/minorCode.h>
#include <omniORB4/omniInterceptors.h>
#include <omnithread.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string_view>
#include <thread>
#include <utility>

#include "idl/port_codes.h"
#include "middleware/orb/connections_omniorb.h"
#include "middleware/orb/endpoint.h"
#include "middleware/orb/omniorb_internals.h"
#include "middleware/orb/shutdown.h"
#include "middleware/orb/tls.h"
#include "platform/limits.h"
#include "platform/log.h"

OMNI_FORCE_LINK(omnisslTP);  // nothing else refers to the broker's TLS library

namespace portsvc::orb {
namespace {

// A blocked call holds a thread, so the stack of a broker thread is what thousands of waiting
// callers cost in address space. Sanitizers put red zones and shadow copies on the stack.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr unsigned long thread_stack_bytes = 4UL << 20;
#else
constexpr unsigned long thread_stack_bytes = 512UL << 10;
#endif

// Connections to one peer, and calls under way on one connection, up to which nobody queues behind
// somebody else's wait.
constexpr unsigned int many = 16000;

// A thread for each connection and each blocked call: a call that finds none would wait unnoticed.
std::string threads_for(const Limit& connections, const Limit& calls) {
  constexpr std::uint64_t most = 1U << 30;
  return std::to_string(std::max<std::uint64_t>(many, std::min(connections.most(), most)) +
                        std::min(calls.most(), most));
}

// Messages are written through buffers of this size, each sent by a call of its own. The broker's
// 8 KiB make a reply of 64 events of 4 KiB cost twice as much.
constexpr unsigned int message_buffer_bytes = 64U << 10;

// How an address begins, and what that is in a corbaloc.
constexpr std::string_view schemes[][2] = {{"giop:tcp:", "iiop"}, {"giop:ssl:", "ssliop"}};

Seldom_Log& damaged_messages() {
  static Seldom_Log log;
  return log;
}

std::atomic<bool> traced{false};

// The broker's own lines: "omniORB: (7) 2026-11-25 14:20:42.123456: TEXT".
void log_line(const char* line) {
  std::string_view text(line);
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.remove_suffix(1);
  constexpr std::string_view own = "omniORB: ";
  if (text.substr(0, own.size()) == own) text.remove_prefix(own.size());
  const auto pass_over = [&text](bool there, std::string_view end) {
    const auto at = text.find(end);
    if (there && at != std::string_view::npos) text.remove_prefix(at + end.size());
  };
  pass_over(text.substr(0, 1) == "(", ") ");
  pass_over(!text.empty() && text[0] >= '0' && text[0] <= '9', ": ");
  if (text.find("protocol error") != std::string_view::npos) {
    damaged_messages().log(Log_Level::warning, "client", "damaged message: " + std::string(text));
  } else if (!traced) {
    return;  // what it cannot do shows in what it answers
  } else if (!log_heard(Log_Level::info)) {
    std::fputs(line, stderr);
  } else {
    log(Log_Level::info, "broker", std::string(text));
  }
}

// A message whose arguments cannot be read; one whose head cannot be read the broker tells of
// itself.
CORBA::Boolean log_damaged(_OMNI_NS(omniInterceptors)::serverSendException_T::info_T& info) {
  const auto* const unreadable = CORBA::MARSHAL::_downcast(info.exception);
  if (!unreadable || unreadable->completed() != CORBA::COMPLETED_NO) return true;
  damaged_messages().log(Log_Level::warning, "client",
                         fmt::format("damaged message from {}: {} cannot be read",
                                     info.peeraddress(), info.operation()));
  return true;
}

std::atomic<bool> stopping{false};

// The adapter of a broker that shuts down would answer OBJ_ADAPTER, which no client expects.
CORBA::Boolean refuse_while_stopping(_OMNI_NS(omniInterceptors)::serverReceiveRequest_T::info_T&) {
  if (stopping) throw CORBA::TRANSIENT(refusal::stopping, CORBA::COMPLETED_NO);
  return true;
}

/// The time-out in force for this thread's calls.
thread_local std::chrono::milliseconds thread_timeout{0};

void apply_thread_timeout(std::chrono::milliseconds timeout) {
  // Threads that the broker did not start need an identity of its own kind to carry the time-out.
  thread_local const omni_thread::ensure_self identity;
  constexpr auto most = std::chrono::milliseconds(0x7fffffff);
  try {
    omniORB::setClientThreadCallTimeout(static_cast<CORBA::ULong>(std::min(timeout, most).count()));
  } catch (const CORBA::INITIALIZE&) {
    // No broker has been started, so there are no calls to limit.
  }
  thread_timeout = timeout;
}

}  // namespace

struct Broker::Impl {
  Tls tls;
  CORBA::ORB_var orb;
  PortableServer::POA_var root_poa;  ///< nil in a pure client
  PatientShutdown shutdown;
};

Broker::Broker(const Options& options) : impl_(std::make_unique<Impl>()) {
  check(options);
  impl_->tls = options.tls;
  if (options.tls.in_use()) watch_handshakes();

  omni_thread::stacksize(thread_stack_bytes);
  const std::string per_peer = std::to_string(many);
  const std::string threads = threads_for(limits().connections, limits().blocked_calls);
  const std::string max_message = std::to_string(options.max_message);
  // At level 1 it tells of clients that break its protocol.
  traced = options.trace > 0;
  omniORB::setLogFunction(log_line);
  const std::string trace =
      std::to_string(std::max(options.trace, options.endpoint.empty() ? 0U : 1U));
  const std::string message_time = std::to_string(options.message_timeout.count());
  const std::pair<const char*, const char*> wanted[] = {
      {"traceLevel", trace.c_str()},
      {"giopMaxMsgSize", max_message.c_str()},
      {"maxGIOPConnectionPerServer", per_peer.c_str()},
      {"maxServerThreadPerConnection", per_peer.c_str()},
      {"maxServerThreadPoolSize", threads.c_str()},
      {"threadPerConnectionPolicy", "1"},
      {"threadPerConnectionUpperLimit", threads.c_str()},
      {"supportPerThreadTimeOut", "1"},
      {"serverCallTimeOutPeriod", message_time.c_str()},
      {"sslCAFile", options.tls.authorities.c_str()},
      {"sslKeyFile", options.tls.key.c_str()},
      // It reads the key only when there is a password for it, even for one that needs none.
      {"sslKeyPassword", options.tls.in_use() ? "none" : ""},
      {"endPoint", options.endpoint.c_str()},
  };
  const char* settings[std::size(wanted) + 1][2] = {};  // the list ends where a name is null
  auto* next = settings;
  for (const auto& [name, value] : wanted) {
    if (!*value) continue;
    (*next)[0] = name;
    (*next)[1] = value;
    ++next;
  }

  try {
    int argc = 0;
    impl_->orb = CORBA::ORB_init(argc, nullptr, "omniORB4", settings);
    // Its environment may ask for more.
    traced = traced || omniORB::traceInvocations || omniORB::traceInvocationReturns;
    set_message_buffer(message_buffer_bytes);
    watch_connections(options.message_timeout);
    stopping = false;
    omniORB::getInterceptors()->serverReceiveRequest.add(refuse_while_stopping);
    omniORB::getInterceptors()->serverSendException.add(log_damaged);
    if (options.endpoint.empty()) return;
    // The first use of the adapter opens the endpoint; calls are held back until serve().
    const CORBA::Object_var object = impl_->orb->resolve_initial_references("RootPOA");
    impl_->root_poa = PortableServer::POA::_narrow(object);
  } catch (const CORBA::INITIALIZE& e) {
    const bool started = !CORBA::is_nil(impl_->orb.in());
    if (started) impl_->orb->destroy();
    if (!started && options.tls.in_use()) {
      throw Error(
          fmt::format("TLS cannot start with {} and {}: they are not valid, or the key is "
                      "not the certificate's",
                      options.tls.authorities, options.tls.key));
    }
    if (e.minor() == _OMNI_NS(INITIALIZE_TransportError)) {
      throw Error(fmt::format("cannot listen on {}: {}", options.endpoint,
                              why_not_listening(parse_endpoint(options.endpoint))));
    }
    throw Error("the broker cannot start: " + describe(e));
  } catch (const CORBA::Exception& e) {
    if (!CORBA::is_nil(impl_->orb.in())) impl_->orb->destroy();
    throw Error("the broker cannot start: " + describe(e));
  }
}

Broker::~Broker() {
  forget_connections();
  try {
    while (!shutdown(std::chrono::hours(1))) {
    }
    impl_->root_poa = PortableServer::POA::_nil();
    impl_->orb->destroy();
  } catch (const CORBA::Exception&) {
    // Somebody else shut the broker down: there is nothing left to do.
  }
}

CORBA::ORB_ptr Broker::orb() const { return impl_->orb.in(); }

Varo::DT_PORT_SVC::Port_Factory_var Broker::serve(POA_Varo::DT_PORT_SVC::Port_Factory* servant) {
  try {
    // Default activation: the servant hands out references to itself and finds its adapter.
    const Varo::DT_PORT_SVC::Port_Factory_var activated = servant->_this();

    // The reference that is given away has the well-known key, so it outlives a restart.
    CORBA::Object_var object = impl_->orb->resolve_initial_references("omniINSPOA");
    const PortableServer::POA_var named_poa = PortableServer::POA::_narrow(object);
    const PortableServer::ObjectId_var id = PortableServer::string_to_ObjectId(object_key);
    named_poa->activate_object_with_id(id, servant);
    object = named_poa->id_to_reference(id);
    Varo::DT_PORT_SVC::Port_Factory_var reference =
        Varo::DT_PORT_SVC::Port_Factory::_narrow(object);

    for (const auto& poa : {impl_->root_poa, named_poa}) {
      const PortableServer::POAManager_var manager = poa->the_POAManager();
      manager->activate();
    }
    return reference;
  } catch (const CORBA::Exception& e) {
    throw Error("the service cannot be activated: " + describe(e));
  }
}

void Broker::read_certificates_again() {
  if (impl_->tls.in_use()) use_certificates(impl_->tls);
}

bool Broker::shutdown(std::chrono::milliseconds patience) {
  // Whoever has just come in before the refusals began finds the adapter open.
  constexpr std::chrono::milliseconds way_to_the_adapter(50);
  if (!stopping.exchange(true)) std::this_thread::sleep_for(way_to_the_adapter);
  return impl_->shutdown.run(impl_->orb.in(), patience);
}

std::string Broker::corbaloc(CORBA::Object_ptr served) const {
  const omniIOR_var ior = served->_PR_getobj()->_getIOR();
  for (const auto* address : ior->getIORInfo()->addresses()) {
    const std::string text = address->address();
    // With TLS alone the plain address is there too, with port 0.
    if (text.compare(text.rfind(':'), std::string::npos, ":0") == 0) continue;
    for (const auto& [prefix, scheme] : schemes) {
      if (text.compare(0, prefix.size(), prefix) == 0) {
        return fmt::format("corbaloc:{}:{}/{}", scheme, text.substr(prefix.size()), object_key);
      }
    }
  }
  throw Error("the reference has no address");
}

CORBA::Object_var Broker::from_outside(CORBA::Object_ptr served) const {
  // The broker knows its own server by the text of its address, so another spelling will do.
  std::string text = corbaloc(served);
  const auto start = text.find(':', text.find(':') + 1) + 1;
  const auto end = text.rfind(':');
  text.replace(start, end - start, other_spelling(text.substr(start, end - start)));
  return from_text(text);
}

CallTimeout::CallTimeout(std::chrono::milliseconds timeout) : outer_(thread_timeout) {
  apply_thread_timeout(timeout);
}

CallTimeout::CallTimeout() : CallTimeout(usual_within(thread_timeout)) {}

CallTimeout::~CallTimeout() { apply_thread_timeout(outer_); }

std::vector<Address> addresses(CORBA::Object_ptr object) {
  std::vector<Address> all;
  if (CORBA::is_nil(object)) return all;
  const omniIOR_var ior = object->_PR_getobj()->_getIOR();
  for (const auto* address : ior->getIORInfo()->addresses()) {
    if (!address->host()) continue;  // no socket address
    const std::string text = address->address();
    const auto port = std::strtoul(text.c_str() + text.rfind(':') + 1, nullptr, 10);
    const bool tls = text.compare(0, schemes[1][0].size(), schemes[1][0]) == 0;
    if (port != 0) all.push_back({address->host(), static_cast<std::uint16_t>(port), tls});
  }
  return all;
}

}  // namespace portsvc::orb
