#include "tools/session.h"

#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <string_view>

#include "idl/port_codes.h"
#include "tools/errors.h"
#include "tools/failures.h"

namespace portsvc::tools {

using Varo::DT_PORT_SVC::Port_Factory;
using Varo::DT_PORT_SVC::Port_Factory_ptr;
using Varo::DT_PORT_SVC::Port_Factory_var;

orb::Broker& Session::broker() {
  if (!broker_) {
    orb::set_peer_call_timeout(std::chrono::seconds(options_.call_timeout));
    orb::Options options;
    options.max_message = options_.max_message;
    options.tls = options_.tls;
    options.trace = options_.trace;
    broker_ = std::make_unique<orb::Broker>(options);
    call_timeout_ = std::make_unique<orb::CallTimeout>();
  }
  return *broker_;
}

Directory& Session::directory() {
  if (directory_) return *directory_;
  if (options_.directory.empty() && options_.naming.empty()) {
    throw UsageError("this takes a directory of servers: --directory FILE or --naming REF");
  }
  try {
    directory_ = options_.directory.empty() ? open_naming_directory(broker(), options_.naming)
                                            : open_file_directory(broker(), options_.directory);
  } catch (const orb::Error& error) {
    throw UsageError(error.what());
  }
  return *directory_;
}

std::string Session::directory_problem(const std::string& wanted) {
  std::string place = options_.directory;
  if (place.empty()) {
    place = "the naming service " + options_.naming;
    const CORBA::Object_var service = broker().from_text(options_.naming);
    try {
      (void)service->_non_existent();
    } catch (const CORBA::Exception& exception) {
      return failure_text(place, service.in(), options_, exception);
    }
  }
  if (!options_.realm.empty()) place += fmt::format(", realm {},", options_.realm);
  std::string known;
  for (const char* role : {role_main, role_sub}) {
    for (const std::string& name : directory().servers(role, options_.realm)) {
      known += (known.empty() ? "" : ", ") + name;
    }
  }
  return fmt::format("{} lists no {}; {}", place, wanted,
                     known.empty() ? "it lists none at all" : "it lists " + known);
}

Port_Factory_var Session::resolve(const std::string& server) {
  CORBA::Object_var object;
  if (const auto reference = orb::reference_text(server, options_.tls.in_use())) {
    try {
      object = broker().from_text(*reference);
    } catch (const orb::Error& error) {
      // The text of a corbaname is looked up at once, so what failed is that look-up.
      if (reference->compare(0, 10, "corbaname:") == 0) throw Unreachable(error.what());
      throw UsageError(error.what());
    }
  } else {
    if (options_.directory.empty() && options_.naming.empty()) {
      throw UsageError(fmt::format(
          "'{}' is no reference and no HOST:PORT; for a server's name give --directory or --naming",
          server));
    }
    object = directory().resolve(server, options_.realm);
    if (CORBA::is_nil(object.in())) {
      throw Unreachable(directory_problem(fmt::format("server '{}'", server)));
    }
  }
  Port_Factory_var factory;
  try {
    factory = Port_Factory::_narrow(object);
  } catch (const CORBA::Exception& exception) {
    throw Unreachable(failure_text(server, object.in(), options_, exception));
  }
  if (CORBA::is_nil(factory.in()))
    throw Unreachable(fmt::format("'{}' is no port service", server));
  return factory;
}

Port_Factory_ptr Session::server() {
  if (CORBA::is_nil(server_.in())) server_ = resolve(options_.server);
  return server_;
}

std::string Session::explain(const CORBA::Exception& exception) const {
  return failure_text(options_.server, server_.in(), options_, exception);
}

Connection::Connection(Port_Factory_ptr server, const std::string& port, unsigned int mode,
                       unsigned int access)
    : server_(server) {
  CORBA::ULong owner = 0;
  const unsigned int code = server_->connect_port(port.c_str(), handle_, mode, access, owner);
  check(fmt::format("connect to {} as {}", port, mode == CONNECT_OWNER ? "its owner" : "a client"),
        code);
}

Connection::~Connection() {
  // The request is under way whether or not an answer comes: a server that is frozen carries it
  // out when it goes on, and is not waited for.
  constexpr std::chrono::milliseconds patience{2000};
  try {
    const orb::CallTimeout limit(std::min(patience, orb::peer_call_timeout()));
    (void)server_->disconnect_port(handle_);
  } catch (const CORBA::Exception&) {
    // A server that has gone knows the connection no more.
  }
}

}  // namespace portsvc::tools
