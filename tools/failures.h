// What a call that failed without a result code means, and what to do about it.
#pragma once

#include <string>

#include "middleware/orb/orb.h"
#include "tools/session.h"

namespace portsvc::tools {

/// One line on `exception`, thrown by a call to `object`, which the user knows as `server`. When
/// there was no connection, or it was lost, this tries the server's address once more, for two
/// seconds. The object may be nil.
std::string failure_text(const std::string& server, CORBA::Object_ptr object,
                         const GlobalOptions& options, const CORBA::Exception& exception);

}  // namespace portsvc::tools
