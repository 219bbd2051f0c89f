// Between the wire's payloads and the server's buffers.
#pragma once

#include <boost/make_shared.hpp>
#include <utility>

#include "idl/port_codes.h"
#include "middleware/orb/wire_bytes.h"
#include "platform/counters.h"
#include "platform/limits.h"
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

/// Counts a payload of a call as queued, while the answer lives, or refuses the call.
inline Queued_Bytes admit(unsigned int payload) {
  traffic().received.add(payload);
  Queued_Bytes counted;
  if (!counted.take(payload)) orb::refuse(refusal::queued_bytes);
  return counted;
}

/// An event whose payload counts as queued, once, for as long as any box holds it.
class Counted_Event final : public vrPort_Buffer {
 public:
  Counted_Event(unsigned int handle, vrBuffer&& payload, Queued_Bytes&& counted)
      : vrPort_Buffer(handle, std::move(payload)), counted_(std::move(counted)) {}
  using vrPort_Buffer::operator=;

 private:
  const Queued_Bytes counted_;
};

/// An event with the payload of an in argument, or refuses the call.
inline boost::shared_ptr<vrPort_Buffer> event_from_wire(unsigned int handle,
                                                        const Varo::DATA_BUFFER& data,
                                                        bool may_take) {
  Queued_Bytes counted = admit(data.length());
  return boost::make_shared<Counted_Event>(handle, from_wire(data, may_take), std::move(counted));
}

/// A new wire payload with the buffer's bytes, which move into it; nullptr, with errno ENOMEM, when
/// it cannot be allocated.
inline Varo::DATA_BUFFER* to_wire(vrBuffer&& buffer) {
  const unsigned int size = buffer.size();
  return orb::give(buffer.release(), size);
}

}  // namespace portsvc
