// Interface names of servers.
#pragma once

#include <ace/SString.h>

namespace VARO_UTIL_API {

/// Splits an interface name at its last '/': `first` receives what is left of it (the group the
/// server belongs to), `second` what is right of it (the server's own name). Without a separator
/// `first` is empty and `second` is the whole name. A null name leaves both empty.
void parse_interface(const char* interface_name, ACE_String_Base<char>& first,
                     ACE_String_Base<char>& second);

}  // namespace VARO_UTIL_API
