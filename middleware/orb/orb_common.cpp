// What every broker does the same way.
#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iterator>
#include <string_view>

#include "idl/port_codes.h"
#include "middleware/orb/endpoint.h"
#include "middleware/orb/orb.h"

namespace portsvc::orb {
namespace {

std::atomic<std::chrono::milliseconds::rep> peer_timeout_ms{5000};

std::atomic<Broker*> broker_of_process{nullptr};

// HOST:PORT, or [ADDRESS]:PORT for an address with colons.
bool is_host_and_port(std::string_view text) {
  const auto colon = text.rfind(':');
  if (colon == std::string_view::npos) return false;
  const std::string_view host = text.substr(0, colon);
  const std::string_view port = text.substr(colon + 1);
  if (port.empty() || port.size() > 5) return false;
  if (port.find_first_not_of("0123456789") != std::string_view::npos) return false;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') return true;
  return !host.empty() && host.find_first_of(":/[]") == std::string_view::npos;
}

/// What an exception usually means to somebody who runs the system, empty when its name says all.
std::string_view usual_meaning(const CORBA::Exception& exception) {
  const auto* const system = CORBA::SystemException::_downcast(&exception);
  if (system) {
    if (const ResultText* const text = refusal_text(system->minor())) return text->meaning;
  }
  if (CORBA::TRANSIENT::_downcast(&exception)) return "the server cannot be reached";
  if (CORBA::TIMEOUT::_downcast(&exception)) return "no answer in time";
  if (CORBA::COMM_FAILURE::_downcast(&exception)) return "the connection was lost during the call";
  if (CORBA::OBJECT_NOT_EXIST::_downcast(&exception)) return "nothing is served under that name";
  if (CORBA::INV_OBJREF::_downcast(&exception)) return "the reference is not valid";
  if (CORBA::MARSHAL::_downcast(&exception)) {
    return "the message is malformed or larger than the largest message";
  }
  if (CORBA::NO_RESOURCES::_downcast(&exception) || CORBA::NO_MEMORY::_downcast(&exception)) {
    return "memory, threads or connections have run out";
  }
  if (CORBA::BAD_OPERATION::_downcast(&exception) || CORBA::BAD_PARAM::_downcast(&exception)) {
    return "what answers is not the service that was asked for";
  }
  return "";
}

}  // namespace

std::optional<std::string> reference_text(const std::string& server, bool tls) {
  for (const std::string_view scheme : {"corbaloc:", "corbaname:", "IOR:"}) {
    if (server.compare(0, scheme.size(), scheme) == 0) return server;
  }
  if (!is_host_and_port(server)) return std::nullopt;
  return fmt::format("corbaloc:{}:{}/{}", tls ? "ssliop" : "iiop", server, object_key);
}

// A broker itself says no more than that it cannot start.
void check(const Options& options) {
  const Tls& tls = options.tls;
  const Endpoint endpoint =
      options.endpoint.empty() ? Endpoint() : parse_endpoint(options.endpoint);
  if (!tls.in_use()) {
    if (endpoint.tls) throw Error("a giop:ssl endpoint needs a certificate and its authorities");
    return;
  }
  const auto require = [](const std::string& path, const char* what) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw Error(fmt::format("cannot read {}", path));
    const std::string text(std::istreambuf_iterator<char>(file), {});
    if (text.find(fmt::format("{}-----", what)) == std::string::npos) {
      throw Error(fmt::format("there is no {} in {}", what, path));
    }
  };
  require(tls.authorities, "CERTIFICATE");
  require(tls.key, "CERTIFICATE");
  require(tls.key, "PRIVATE KEY");
}

std::chrono::milliseconds peer_call_timeout() {
  return std::chrono::milliseconds(peer_timeout_ms.load(std::memory_order_relaxed));
}

void set_peer_call_timeout(std::chrono::milliseconds timeout) {
  peer_timeout_ms.store(timeout.count(), std::memory_order_relaxed);
}

std::chrono::milliseconds CallTimeout::usual_within(std::chrono::milliseconds in_force) {
  const std::chrono::milliseconds usual = peer_call_timeout();
  return in_force.count() == 0 ? usual : std::min(usual, in_force);
}

Broker* Broker::running() { return broker_of_process.load(); }

Broker::Entry::Entry(Broker* broker) { broker_of_process = broker; }

Broker::Entry::~Entry() { broker_of_process = nullptr; }

std::string Broker::to_text(CORBA::Object_ptr object) const {
  try {
    const CORBA::String_var text = orb()->object_to_string(object);
    return text.in();
  } catch (const CORBA::Exception& e) {
    throw Error("the reference has no text: " + describe(e));
  }
}

CORBA::Object_var Broker::from_text(const std::string& text) const {
  try {
    const CallTimeout limit;
    CORBA::Object_var object = orb()->string_to_object(text.c_str());
    if (!CORBA::is_nil(object.in())) return object;
  } catch (const CORBA::Exception& e) {
    // Only a name has to be looked up; with the other forms it is the text that is wrong.
    const bool name = text.rfind("corbaname:", 0) == 0;
    throw Error(name ? fmt::format("'{}' cannot be looked up: {}", text, describe(e))
                     : fmt::format("'{}' is no reference", text));
  }
  throw Error(fmt::format("'{}' is the nil reference", text));
}

void refuse(unsigned int minor) { throw CORBA::IMP_LIMIT(minor, CORBA::COMPLETED_NO); }

Failing kind_of(const CORBA::Exception& exception) {
  const auto* const system = CORBA::SystemException::_downcast(&exception);
  if (system && system->minor() == refusal::stopping) return Failing::stopping;
  if (CORBA::TRANSIENT::_downcast(&exception)) return Failing::not_connected;
  if (CORBA::COMM_FAILURE::_downcast(&exception)) return Failing::lost;
  if (CORBA::TIMEOUT::_downcast(&exception)) return Failing::late;
  if (CORBA::MARSHAL::_downcast(&exception)) return Failing::too_large;
  return Failing::other;
}

std::string describe(const CORBA::Exception& exception) {
  const std::string_view meaning = usual_meaning(exception);
  return meaning.empty() ? exception._name() : fmt::format("{} ({})", meaning, exception._name());
}

}  // namespace portsvc::orb
