// For programs that want an operation the client library does not offer: the generated stubs, on
// the library's own connection. Unlike client.h this needs the headers of the broker.
#pragma once

#include <functional>

#include "middleware/orb/orb.h"
#include "portsvc/client.h"

namespace portsvc::client {

/// The reference that the Connection calls now; throws Error when its server is looked up by name
/// and cannot be found. Its operations raise the broker's exceptions and know no time-outs, no
/// other address after a restart and no cancellation: ask for the reference anew before each use,
/// and name no handle of the library's clients and owners.
Varo::DT_PORT_SVC::Port_Factory_var stubs_of(const Connection& connection);

/// One call of a stub with the time-out of a call that does not wait. `call(server)` answers the
/// operation's code; what it raises becomes a Result.
Result call(const Connection& connection,
            const std::function<unsigned int(Varo::DT_PORT_SVC::Port_Factory_ptr)>& call);

/// What an exception of a stub comes to.
Result result_of(const CORBA::Exception& exception);

}  // namespace portsvc::client
