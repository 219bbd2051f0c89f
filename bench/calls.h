// What every benchmark says to a port service.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <stdexcept>

#include "idl/port_codes.h"
#include "middleware/orb/orb.h"

namespace portsvc::bench {

using Varo::DATA_BUFFER;
using Varo::DATA_BUFFER_SEQ;

/// A measured operation must do what it is measured for: anything but 0 ends the run.
inline void require_ok(CORBA::ULong code) {
  if (code != result::ok) throw std::runtime_error(fmt::format("unexpected result code {}", code));
}

/// A payload of `size` bytes.
inline DATA_BUFFER payload(std::size_t size) {
  DATA_BUFFER data;
  data.length(static_cast<CORBA::ULong>(size));
  std::fill_n(data.get_buffer(), size, 'x');
  return data;
}

}  // namespace portsvc::bench
