// Lengths of time as ACE takes them.
#pragma once

#include <ace/Time_Value.h>

#include <chrono>

namespace portsvc {

/// Older releases of ACE have no constructor for it.
inline ACE_Time_Value time_value(std::chrono::microseconds length) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(length);
  return ACE_Time_Value(static_cast<time_t>(seconds.count()),
                        static_cast<suseconds_t>((length - seconds).count()));
}

inline std::chrono::microseconds length_of(const ACE_Time_Value& value) {
  return std::chrono::seconds(value.sec()) + std::chrono::microseconds(value.usec());
}

}  // namespace portsvc
