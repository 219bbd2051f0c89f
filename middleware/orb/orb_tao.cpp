// The broker for sites that run TAO: the parts of orb.h that differ from other brokers.
#include <fmt/format.h>
#include <tao/AnyTypeCode/Any.h>
#include <tao/CSD_Framework/CSD_Strategy_Base.h>
#include <tao/Dynamic_TP/DTP_Config.h>
#include <tao/Dynamic_TP/DTP_POA_Strategy.h>
#include <tao/Endpoint.h>
#include <tao/IORTable/IORTable.h>
#include <tao/MProfile.h>
#include <tao/Messaging/Messaging.h>
#include <tao/PolicyC.h>
#include <tao/PortableServer/PortableServer.h>
#include <tao/Profile.h>
#include <tao/Stub.h>
#include <tao/TimeBaseC.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "idl/port_codes.h"
#include "middleware/orb/endpoint.h"
#include "middleware/orb/orb.h"
#include "middleware/orb/shutdown.h"
#include "middleware/orb/wire_bytes.h"
#include "platform/sockets.h"

namespace portsvc::orb {
namespace {

// A blocked call holds a connection: a client opens one per concurrent call.
constexpr const char* client_strategy =
    "static Client_Strategy_Factory \"-ORBTransportMuxStrategy EXCLUSIVE\"";
// In a server the thread that calls a peer reads the answer itself: waiting in the broker's event
// loop, beside the threads that serve, costs milliseconds a call. Not in a pure client, where an
// interruption would look like a lost connection.
constexpr const char* client_strategy_in_server =
    "static Client_Strategy_Factory \"-ORBTransportMuxStrategy EXCLUSIVE "
    "-ORBClientConnectionHandler RW\"";
constexpr const char* server_strategy =
    "static Server_Strategy_Factory \"-ORBConcurrency thread-per-connection\"";
// Every caller may be waiting at the same time.
constexpr const char* resource_limits = "static Resource_Factory \"-ORBConnectionCacheMax 16000\"";

// Calls are carried out by threads of their own, apart from those that read the connections: a
// blocked call would hold up all others of its connection, and a client of this broker shares one.
constexpr int idle_call_threads = 4;
constexpr int most_call_threads = 16000;
constexpr std::size_t call_stack_bytes = 512UL << 10;
constexpr int idle_seconds = 10;

using Call_Threads = TAO_Intrusive_Ref_Count_Handle<TAO::CSD::Strategy_Base>;

Call_Threads call_threads() {
  TAO_DTP_Definition definition;
  definition.min_threads_ = idle_call_threads;
  definition.init_threads_ = idle_call_threads;
  definition.max_threads_ = most_call_threads;
  definition.stack_size_ = call_stack_bytes;
  definition.timeout_ = ACE_Time_Value(idle_seconds, 0);
  definition.queue_depth_ = 0;  // no limit
  return Call_Threads(new TAO_DTP_POA_Strategy(&definition, false));
}

void give_threads(const Call_Threads& threads, PortableServer::POA_ptr adapter) {
  if (!threads->apply_to(adapter)) throw Error("the adapter takes no threads for its calls");
}

std::atomic<std::uint64_t> largest_request{0};

std::mutex running_lock;  // guards running; nothing is called under it
CORBA::ORB_var running;   // the process's broker, nil without one

void set_running(CORBA::ORB_ptr orb) {
  const std::lock_guard<std::mutex> guard(running_lock);
  running = CORBA::ORB::_duplicate(orb);
}

CORBA::ORB_var running_broker() {
  const std::lock_guard<std::mutex> guard(running_lock);
  return running;
}

/// "iiop://HOST:PORT".
std::string listen_address(const Endpoint& endpoint) {
  const bool v6 = endpoint.host.find(':') != std::string::npos;
  return fmt::format(v6 ? "iiop://[{}]:{}" : "iiop://{}:{}", endpoint.host, endpoint.port);
}

/// The time-out in force for this thread's calls.
thread_local std::chrono::milliseconds thread_timeout{0};

void limit_calls(CORBA::ORB_ptr orb, std::chrono::milliseconds timeout) {
  const CORBA::Object_var object = orb->resolve_initial_references("PolicyCurrent");
  const CORBA::PolicyCurrent_var current = CORBA::PolicyCurrent::_narrow(object.in());
  CORBA::PolicyList policies;
  if (timeout.count() == 0) {
    current->set_policy_overrides(policies, CORBA::SET_OVERRIDE);
    return;
  }
  constexpr TimeBase::TimeT units_per_millisecond = 10000;  // of 100 ns
  CORBA::Any value;
  value <<= static_cast<TimeBase::TimeT>(timeout.count()) * units_per_millisecond;
  policies.length(1);
  policies[0] = orb->create_policy(Messaging::RELATIVE_RT_TIMEOUT_POLICY_TYPE, value);
  current->set_policy_overrides(policies, CORBA::SET_OVERRIDE);
  policies[0]->destroy();
}

void apply_thread_timeout(std::chrono::milliseconds timeout) {
  if (timeout == thread_timeout) return;
  thread_timeout = timeout;
  const CORBA::ORB_var orb = running_broker();
  if (CORBA::is_nil(orb.in())) return;  // no calls to limit
  try {
    limit_calls(orb.in(), timeout);
  } catch (const CORBA::Exception&) {
    // The broker is being shut down: calls fail at once.
  }
}

}  // namespace

// The generated code throws on arguments that it cannot read only if errno says why, and hands
// the servant null strings otherwise.
void Port_Factory_Skeleton::_dispatch(TAO_ServerRequest& request,
                                      TAO::Portable_Server::Servant_Upcall* upcall) {
  const TAO_InputCDR* const message = request.incoming();  // none in a call within the process
  if (message && message->length() > largest_request) {
    throw CORBA::MARSHAL(0, CORBA::COMPLETED_NO);
  }
  const std::size_t operation = Served_Calls::number_of(request.operation());
  const Timed_Call timed(operation);
  const Blocked_Call counted(operation);
  errno = EINVAL;
  POA_Varo::DT_PORT_SVC::Port_Factory::_dispatch(request, upcall);
}

struct Broker::Impl {
  CORBA::ORB_var orb;
  PortableServer::POA_var root_poa;  ///< nil in a pure client
  Call_Threads call_threads;
  std::thread events;  ///< accepts connections
  PatientShutdown shutdown;
};

Broker::Broker(const Options& options) : impl_(std::make_unique<Impl>()) {
  Endpoint endpoint;
  if (!options.endpoint.empty()) endpoint = parse_endpoint(options.endpoint);
  if (endpoint.tls || options.tls.in_use()) throw Error("there is no TLS in this build");

  // Replies have no limit: this broker takes what memory allows.
  largest_request = options.max_message;
  std::vector<std::string> words = {
      "portsvc",
      "-ORBDebugLevel",
      std::to_string(options.trace),
      "-ORBSvcConfDirective",
      options.endpoint.empty() ? client_strategy : client_strategy_in_server,
      "-ORBSvcConfDirective",
      server_strategy,
      "-ORBSvcConfDirective",
      resource_limits};
  if (!options.endpoint.empty()) {
    words.push_back("-ORBListenEndpoints");
    words.push_back(listen_address(endpoint));
  }
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);

  try {
    int argc = static_cast<int>(words.size());
    impl_->orb = CORBA::ORB_init(argc, arguments.data());
  } catch (const CORBA::Exception& e) {
    throw Error("the broker cannot start: " + describe(e));
  }
  set_running(impl_->orb.in());
  if (options.endpoint.empty()) return;
  try {
    // The first use of the adapter opens the endpoint; calls are held back until serve().
    const CORBA::Object_var object = impl_->orb->resolve_initial_references("RootPOA");
    impl_->root_poa = PortableServer::POA::_narrow(object.in());
    // The broker listens with room for five connections that have not been accepted yet, and never
    // gives up one whose other end has vanished. Both can be set on a socket that listens already.
    adjust_listening_sockets(options.message_timeout);
  } catch (const CORBA::Exception&) {
    set_running(CORBA::ORB::_nil());
    impl_->orb->destroy();
    throw Error(
        fmt::format("cannot listen on {}: {}", options.endpoint, why_not_listening(endpoint)));
  }
}

Broker::~Broker() {
  set_running(CORBA::ORB::_nil());
  try {
    while (!shutdown(std::chrono::hours(1))) {
    }
    if (impl_->events.joinable()) impl_->events.join();
    impl_->root_poa = PortableServer::POA::_nil();
    impl_->orb->destroy();
  } catch (const CORBA::Exception&) {
    // Somebody else shut the broker down: there is nothing left to do.
  }
}

CORBA::ORB_ptr Broker::orb() const { return impl_->orb.in(); }

Varo::DT_PORT_SVC::Port_Factory_var Broker::serve(POA_Varo::DT_PORT_SVC::Port_Factory* servant) {
  try {
    impl_->call_threads = call_threads();
    give_threads(impl_->call_threads, impl_->root_poa.in());
    // Default activation: the servant hands out references to itself and finds its adapter.
    const Varo::DT_PORT_SVC::Port_Factory_var activated = servant->_this();

    // The reference that is given away is a persistent one, so it outlives a restart.
    PortableServer::POA_var& root = impl_->root_poa;
    const PortableServer::POAManager_var manager = root->the_POAManager();
    CORBA::PolicyList policies;
    policies.length(2);
    policies[0] = root->create_lifespan_policy(PortableServer::PERSISTENT);
    policies[1] = root->create_id_assignment_policy(PortableServer::USER_ID);
    const PortableServer::POA_var named_poa = root->create_POA(object_key, manager.in(), policies);
    for (CORBA::ULong i = 0; i < policies.length(); ++i) policies[i]->destroy();
    give_threads(impl_->call_threads, named_poa.in());
    const PortableServer::ObjectId_var id = PortableServer::string_to_ObjectId(object_key);
    named_poa->activate_object_with_id(id.in(), servant);
    const CORBA::Object_var object = named_poa->id_to_reference(id.in());

    // A corbaloc with the well-known key is forwarded to it.
    const CORBA::Object_var table_object = impl_->orb->resolve_initial_references("IORTable");
    const IORTable::Table_var table = IORTable::Table::_narrow(table_object.in());
    const CORBA::String_var text = impl_->orb->object_to_string(object.in());
    table->bind(object_key, text.in());

    manager->activate();
    impl_->events = std::thread([orb = CORBA::ORB_var(CORBA::ORB::_duplicate(impl_->orb.in()))] {
      try {
        orb->run();
      } catch (const CORBA::Exception&) {
        // The broker is shut down.
      }
    });
    return Varo::DT_PORT_SVC::Port_Factory::_narrow(object.in());
  } catch (const CORBA::Exception& e) {
    throw Error("the service cannot be activated: " + describe(e));
  }
}

void Broker::read_certificates_again() {}  // there is no TLS in this build

bool Broker::shutdown(std::chrono::milliseconds patience) {
  return impl_->shutdown.run(impl_->orb.in(), patience);
}

std::string Broker::corbaloc(CORBA::Object_ptr served) const {
  std::array<char, 300> address{};
  TAO_MProfile& profiles = served->_stubobj()->base_profiles();
  if (profiles.profile_count() == 0 ||
      profiles.get_profile(0)->endpoint()->addr_to_string(address.data(), address.size()) != 0) {
    throw Error("the reference has no address");
  }
  return fmt::format("corbaloc:iiop:{}/{}", address.data(), object_key);
}

CORBA::Object_var Broker::from_outside(CORBA::Object_ptr served) const {
  return CORBA::Object::_duplicate(served);
}

CallTimeout::CallTimeout(std::chrono::milliseconds timeout) : outer_(thread_timeout) {
  apply_thread_timeout(timeout);
}

CallTimeout::CallTimeout() : CallTimeout(usual_within(thread_timeout)) {}

CallTimeout::~CallTimeout() { apply_thread_timeout(outer_); }

std::vector<Address> addresses(CORBA::Object_ptr) { return {}; }

std::uint64_t connections_opened(CORBA::Object_ptr) {
  static std::atomic<std::uint64_t> asked{0};
  return ++asked;
}

void tell_own_name(const std::string&) {}

OpenConnectionsOnly::OpenConnectionsOnly(bool&) {}

bool OpenConnectionsOnly::had_connection() const { return true; }

OpenConnectionsOnly::~OpenConnectionsOnly() = default;

// This broker counts no connections.
std::uint64_t connections_served() { return 0; }
std::uint64_t connections_taken() { return 0; }

}  // namespace portsvc::orb
