// Between the wire's payloads and the server's buffers.
#pragma once

#include <utility>

#include "middleware/orb/wire_bytes.h"
#include "ports/buffer.h"

namespace portsvc {

/// The payload of an in argument; see orb::may_take_arguments.
inline vrBuffer from_wire(const Varo::DATA_BUFFER& data, bool may_take) {
  orb::Octets octets = orb::take(data, may_take);
  return vrBuffer(octets.size, std::move(octets.bytes));
}
inline vrBuffer from_wire(const Varo::DATA_BUFFER& data) {
  return from_wire(data, orb::may_take_arguments());
}

/// A new wire payload with the buffer's bytes, which move into it; nullptr, with errno ENOMEM, when
/// it cannot be allocated.
inline Varo::DATA_BUFFER* to_wire(vrBuffer&& buffer) {
  const unsigned int size = buffer.size();
  return orb::give(buffer.release(), size);
}

}  // namespace portsvc
