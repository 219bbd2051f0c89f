// Names as text that every reader takes.
#pragma once

#include <string>

namespace portsvc::observe {

/// `name` as UTF-8: bytes that are none, and control characters, are written \xNN, a backslash
/// twice, so that different names stay different.
std::string readable(const std::string& name);

}  // namespace portsvc::observe
