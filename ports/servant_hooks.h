// What a port may ask of the servant that created it. The servant core defines these functions;
// they pass the call on to the servant's operation of the same name, so the role's version runs.
#pragma once

#include "middleware/orb/orb.h"

class Port_Factory_i;
class Port_impl;
class vrBuffer;

namespace portsvc::servant {

/// Reference to the peer server's port service; nil when there is none.
Varo::DT_PORT_SVC::Port_Factory_var get_remote_point(Port_Factory_i* servant);
/// Forgets a peer reference that failed.
void releaseRemotePoint(Port_Factory_i* servant);
/// An event box was handed a packet.
int process_event_data(Port_Factory_i* servant, Port_impl* port, unsigned int handle,
                       const vrBuffer& data, bool front);

}  // namespace portsvc::servant
