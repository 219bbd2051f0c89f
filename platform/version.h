// Which release of the port service this is.
#pragma once

namespace portsvc {

/// "MAJOR.MINOR.PATCH", as the build names the project.
const char* version();

}  // namespace portsvc
