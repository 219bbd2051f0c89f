// What the broker keeps to itself and offers no function for. For this folder only: all that
// reaches into the broker stands behind this header, in one file that is looked through when its
// release changes.
#pragma once

#include <omniORB4/CORBA.h>
#include <omniORB4/callHandle.h>
#include <omniORB4/omniInterceptors.h>

OMNI_NAMESPACE_BEGIN(omni)
class giopServer;
OMNI_NAMESPACE_END(omni)

namespace portsvc::orb {

/// The size of the buffers through which messages are written. The broker has no option for it.
void set_message_buffer(unsigned int bytes);

/// The server that a client's connection was made to.
const _OMNI_NS(giopServer) & server_of(const _OMNI_NS(giopStrand) & strand);
/// How many connections it has: it tells of a new one, not of its end, but it keeps count.
unsigned int connections_of(const _OMNI_NS(giopServer) & server);

/// The socket of a client's connection, or of the one over which a call has come; -1 for none.
int socket_of(const _OMNI_NS(giopStrand) & strand);
int socket_of(const omniCallHandle& call);

/// Has a reply sent without the broker's time-out.
void clear_deadline(_OMNI_NS(GIOP_S) & call);

/// What a remote call has brought beside its arguments; null for another.
const IOP::ServiceContextList* service_contexts_of(const omniCallHandle& call);

}  // namespace portsvc::orb
