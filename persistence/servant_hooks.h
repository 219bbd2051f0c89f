// What the background tasks ask of the servant they work for. The servant core defines these
// functions; make_snapshot goes through the remote interface's operation.
#pragma once

class Port_Factory_i;

namespace portsvc::servant {

void make_snapshot(Port_Factory_i* servant);
void check_no_transition(Port_Factory_i* servant);

}  // namespace portsvc::servant
