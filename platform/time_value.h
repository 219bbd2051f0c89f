// Lengths of time as ACE takes them.
#pragma once

#include <ace/Time_Value.h>

#include <chrono>

namespace portsvc {

/// Older releases of ACE have no constructor for it.
inline ACE_Time_Value time_value(std::chrono::milliseconds length) {
  return ACE_Time_Value(static_cast<time_t>(length.count() / 1000),
                        static_cast<suseconds_t>(length.count() % 1000 * 1000));
}

}  // namespace portsvc
