// Payload bytes between wire sequences and the server's own buffers, without a copy where the
// broker allows it. Both brokers allocate the octets of a sequence with new[], as this system does.
#pragma once

#include <cerrno>
#include <memory>
#include <new>
#include <utility>

#include "idl/port_codes.h"
#include "middleware/orb/orb.h"
#include "middleware/orb/served_calls.h"
#include "platform/caller.h"
#include "platform/limits.h"
#include "platform/octets.h"

#if !defined(PORTSVC_ORB_TAO)
#include <omniORB4/callHandle.h>
#endif

namespace portsvc::orb {

/// Owned bytes; null when `size` is 0 or they could not be allocated.
struct Octets {
  std::unique_ptr<unsigned char[]> bytes;
  unsigned int size = 0;
};

/// The sequence's bytes, still its own.
inline const unsigned char* bytes_of(const Varo::DATA_BUFFER& data) { return data.get_buffer(); }

namespace detail {

// True from the moment the broker hands a remote call to a servant until the operation's in
// arguments have been taken: only then do they belong to nobody but the call.
inline thread_local bool arguments_are_ours = false;

class Own_Arguments {
 public:
  Own_Arguments() { arguments_are_ours = true; }
  ~Own_Arguments() { arguments_are_ours = false; }
  Own_Arguments(const Own_Arguments&) = delete;
  Own_Arguments& operator=(const Own_Arguments&) = delete;
};

inline Octets copy(const Varo::DATA_BUFFER& data) {
  Octets octets;
  if (data.length() == 0) return octets;
  octets.bytes = copy_of(bytes_of(data), data.length());
  if (octets.bytes) octets.size = data.length();
  return octets;
}

inline Octets steal(Varo::DATA_BUFFER& data) {
  Octets octets;
  const unsigned int size = data.length();
  if (size == 0) return octets;
  octets.bytes.reset(data.get_buffer(1));
  if (octets.bytes) octets.size = size;
  return octets;
}

}  // namespace detail

/// Answers, once per remote call, whether the call's in arguments may be emptied. False in a call
/// made within this process, whose arguments are the caller's.
inline bool may_take_arguments() { return std::exchange(detail::arguments_are_ours, false); }

/// The bytes of an in argument: taken over when `may_take`, else copied.
inline Octets take(const Varo::DATA_BUFFER& data, bool may_take) {
  if (!may_take) return detail::copy(data);
  Octets octets = detail::steal(const_cast<Varo::DATA_BUFFER&>(data));
  return octets.bytes ? std::move(octets) : detail::copy(data);
}

/// A new sequence that owns `bytes`; nullptr, with errno ENOMEM, when it cannot be allocated.
inline Varo::DATA_BUFFER* give(std::unique_ptr<unsigned char[]> bytes, unsigned int size) {
  auto* const data = size == 0 ? new (std::nothrow) Varo::DATA_BUFFER
                               : new (std::nothrow) Varo::DATA_BUFFER(size, size, bytes.get(), 1);
  if (!data) {
    errno = ENOMEM;
    return nullptr;
  }
  if (size != 0) bytes.release();
  return data;
}

/// A remote call's share of the blocked calls, while it lives. Only operations that may wait have
/// one: the others stay open to who wants to see what all the calls wait for.
class Blocked_Call {
 public:
  /// `operation` is its number among the served calls.
  explicit Blocked_Call(std::size_t operation) : counted_(Served_Calls::may_wait(operation)) {
    if (counted_ && !limits().blocked_calls.take()) refuse(refusal::blocked_calls);
  }
  ~Blocked_Call() {
    if (counted_) limits().blocked_calls.give_back();
  }
  Blocked_Call(const Blocked_Call&) = delete;
  Blocked_Call& operator=(const Blocked_Call&) = delete;

 private:
  const bool counted_;
};

#if defined(PORTSVC_ORB_TAO)
/// The skeleton; it refuses requests that are too large or cannot be read.
class Port_Factory_Skeleton : public virtual POA_Varo::DT_PORT_SVC::Port_Factory {
 public:
  void _dispatch(TAO_ServerRequest& request, TAO::Portable_Server::Servant_Upcall* upcall) override;
};
#else
/// The other end of the connection over which a call has come.
class Remote_Caller final : public Caller {
 public:
  explicit Remote_Caller(const omniCallHandle& call) : call_(call) {}

  /// True once the other end has closed the connection or the kernel has given it up.
  bool gone() const override;
  /// What it has set with tell_own_name().
  std::string server() const override;

 private:
  const omniCallHandle& call_;
};

/// The skeleton; it notes that the in arguments of a remote call may be taken over, and whose call
/// it is, and counts it.
class Port_Factory_Skeleton : public virtual POA_Varo::DT_PORT_SVC::Port_Factory {
 public:
  _CORBA_Boolean _dispatch(omniCallHandle& handle) override {
    const std::size_t operation = Served_Calls::number_of(handle.operation_name());
    const Timed_Call timed(operation);
    const Blocked_Call counted(operation);
    const Remote_Caller caller(handle);
    const Caller::Scope scope(&caller);
    const detail::Own_Arguments arguments;
    return POA_Varo::DT_PORT_SVC::Port_Factory::_dispatch(handle);
  }
};
#endif

}  // namespace portsvc::orb
