// Packets: each operation finds the port by the kind of handle it is given, converts the payload,
// and calls the port, which queues and waits.

#include "core/out_values.h"
#include "core/port_factory_i.h"
#include "ports/wire.h"

using namespace portsvc;
using Varo::DATA_BUFFER;
using Varo::DATA_BUFFER_SEQ;

namespace {

// Moves a buffer into an out payload; false when it could not be allocated.
bool deliver(vrBuffer&& buffer, Varo::DATA_BUFFER_out& out) {
  traffic().sent.add(buffer.size());
  DATA_BUFFER* const data = to_wire(std::move(buffer));
  out = data;
  return data != nullptr;
}

// An empty out payload beside `code`.
unsigned int with_empty(Varo::DATA_BUFFER_out& out, unsigned int code) {
  return fresh<DATA_BUFFER>(out) ? code : result::failed;
}

// An empty out list beside `code`.
unsigned int with_empty(Varo::DATA_BUFFER_SEQ_out& out, unsigned int code) {
  return fresh<DATA_BUFFER_SEQ>(out) ? code : result::failed;
}

// Fills an element of an out list. An event that only this call still holds gives its bytes away,
// one that stands in other boxes too is copied.
bool put(const Event_ptr& event, DATA_BUFFER& element) {
  const unsigned int size = event->size();
  if (size == 0) return true;
  if (event.use_count() == 1) {
    element.replace(size, size, event->release().release(), 1);
    return true;
  }
  if (!set_length(element, size)) return false;
  std::memcpy(element.get_buffer(), event->data(), size);
  return true;
}

}  // namespace

CORBA::ULong Port_Factory_i::packet_foward(CORBA::ULong handle, const DATA_BUFFER& data,
                                           CORBA::ULong timeout) try {
  const auto port = find_port(handle);
  if (!port) return result::unknown_handle;
  const Queued_Bytes counted = admit(data.length());
  return port->forward(handle, from_wire(data), timeout);
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}

CORBA::ULong Port_Factory_i::packet_foward_front(CORBA::ULong handle, const DATA_BUFFER& data,
                                                 CORBA::ULong timeout) try {
  const auto port = find_port(handle);
  if (!port) return result::unknown_handle;
  const Queued_Bytes counted = admit(data.length());
  return port->forward_front(handle, from_wire(data), timeout);
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}

CORBA::ULong Port_Factory_i::packet_replay(CORBA::ULong handle, const DATA_BUFFER& data,
                                           CORBA::ULong timeout) try {
  const auto port = find_port(handle);
  if (!port) return result::unknown_handle;
  const Queued_Bytes counted = admit(data.length());
  return port->replay(handle, from_wire(data), timeout);
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}

CORBA::ULong Port_Factory_i::packet_receive(CORBA::ULong id, CORBA::ULong_out source,
                                            Varo::DATA_BUFFER_out data, CORBA::ULong timeout) try {
  const auto port = get_port(id);
  if (!port) return with_empty(data, result::unknown_handle);
  vrBuffer packet;
  const unsigned int received = port->receive(source, packet, timeout);
  return deliver(std::move(packet), data) ? received : result::out_of_memory;
} catch (const std::bad_alloc&) {
  return with_empty(data, no_memory(result::out_of_memory));
}

CORBA::ULong Port_Factory_i::packet_replay_wait(CORBA::ULong handle, Varo::DATA_BUFFER_out data,
                                                CORBA::ULong timeout) try {
  const auto port = find_port(handle);
  if (!port) return with_empty(data, result::unknown_handle);
  vrBuffer reply;
  const unsigned int received = port->replay_wait(handle, reply, timeout);
  if (received != result::ok) return with_empty(data, received);
  return deliver(std::move(reply), data) ? result::ok : result::out_of_memory;
} catch (const std::bad_alloc&) {
  return with_empty(data, no_memory(result::out_of_memory));
}

CORBA::ULong Port_Factory_i::packet_receive_n(CORBA::ULong id, Varo::DATA_BUFFER_SEQ_out list,
                                              CORBA::ULong count, CORBA::ULong timeout) try {
  const auto port = get_port(id);
  if (!port) return with_empty(list, result::unknown_handle);
  std::vector<Event_ptr> events;
  unsigned int source = 0;
  const unsigned int received = port->receive_n(source, events, count, timeout);
  if (received != result::ok || events.empty()) return with_empty(list, received);

  auto* const payloads = fresh<DATA_BUFFER_SEQ>(list);
  if (!payloads || !set_length(*payloads, events.size())) return result::failed;
  const Together together;
  std::uint64_t bytes = 0;
  for (unsigned int i = 0; i < events.size(); ++i) {
    bytes += events[i]->size();
    if (!put(events[i], (*payloads)[i])) return result::failed;
    events[i].reset();
  }
  traffic().sent.add(bytes);
  return result::ok;
} catch (const std::bad_alloc&) {
  return no_memory(result::failed);
}
