#include "portsvc/stubs.h"

#include "client/link.h"

namespace portsvc::client {

Varo::DT_PORT_SVC::Port_Factory_var stubs_of(const Connection& connection) {
  return link_of(connection)->reference();
}

Result call(const Connection& connection,
            const std::function<unsigned int(Varo::DT_PORT_SVC::Port_Factory_ptr)>& call) {
  return link_of(connection)->call(call);
}

Result result_of(const CORBA::Exception& exception) { return detail::result_of(exception); }

}  // namespace portsvc::client
