#include "platform/version.h"

namespace portsvc {

const char* version() { return PORTSVC_VERSION; }

}  // namespace portsvc
