// portctl: the port service from the command line.
#pragma once

namespace portsvc::tools {

/// The whole program. The arguments are those of main, the answer is the exit status.
int portctl(int argc, char** argv);

}  // namespace portsvc::tools
