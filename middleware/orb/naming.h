// The stubs of the naming service, whichever broker brings them.
#pragma once

#include "middleware/orb/orb.h"

#if defined(PORTSVC_ORB_TAO)
#include "orbsvcs/CosNamingC.h"
#else
#include <omniORB4/Naming.hh>
#endif
