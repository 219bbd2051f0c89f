#include "middleware/orb/omniorb_internals.h"

#include <omniORB4/internal/giopStream.h>
// The rest of the broker's own headers need those before them.
#include <omniORB4/internal/giopServer.h>
#include <omniORB4/internal/giopStrand.h>
#include <omniORB4/internal/giopStreamImpl.h>
//
#include <omniORB4/internal/GIOP_S.h>
//
#include <omniORB4/internal/SocketCollection.h>

// MAJOR * 10000 + MINOR * 100 + PATCH, from the build.
#if PORTSVC_OMNIORB_VERSION != 40205
#error \
    "This file names private members of omniORB 4.2.5. See whether they are the same and mean \
the same in the release at hand, run the tests, and enter its number here."
#endif

namespace portsvc::orb {
namespace {

// An explicit instantiation may name what is private.
template <CORBA::ULong* Member>
struct Set_Buffer_Size {
  friend void set_buffer_size(CORBA::ULong bytes) { *Member = bytes; }
};
void set_buffer_size(CORBA::ULong bytes);
template struct Set_Buffer_Size<&_OMNI_NS(giopStream)::bufferSize>;

template <CORBA::ULong _OMNI_NS(giopServer)::*Member>
struct Count_Connections {
  friend CORBA::ULong count_connections(const _OMNI_NS(giopServer) & server) {
    return __atomic_load_n(&(server.*Member), __ATOMIC_RELAXED);
  }
};
CORBA::ULong count_connections(const _OMNI_NS(giopServer) & server);
template struct Count_Connections<&_OMNI_NS(giopServer)::pd_nconnections>;

// The socket is for derived classes.
class Socket : public _OMNI_NS(SocketHolder) {
 public:
  static int of(_OMNI_NS(giopConnection) * connection) {
    auto* const holder = dynamic_cast<_OMNI_NS(SocketHolder)*>(connection);
    return holder ? holder->*(&Socket::pd_socket) : -1;
  }
};

_OMNI_NS(GIOP_S) * remote(const omniCallHandle& call) {
  return dynamic_cast<_OMNI_NS(GIOP_S)*>(call.iop_s());
}

}  // namespace

void set_message_buffer(unsigned int bytes) { set_buffer_size(bytes); }

const _OMNI_NS(giopServer) & server_of(const _OMNI_NS(giopStrand) & strand) {
  return *strand.server;
}

unsigned int connections_of(const _OMNI_NS(giopServer) & server) {
  return count_connections(server);
}

int socket_of(const _OMNI_NS(giopStrand) & strand) { return Socket::of(strand.connection); }

int socket_of(const omniCallHandle& call) {
  auto* const found = remote(call);
  return found ? socket_of(found->strand()) : -1;
}

void clear_deadline(_OMNI_NS(GIOP_S) & call) { call.clearDeadline(); }

const IOP::ServiceContextList* service_contexts_of(const omniCallHandle& call) {
  auto* const found = remote(call);
  return found ? &found->service_contexts() : nullptr;
}

}  // namespace portsvc::orb
