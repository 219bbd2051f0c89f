// What a server's metrics endpoint tells, for commands.
#pragma once

#include <string>

#include "tools/output.h"

namespace portsvc::tools {

/// The board of the server whose metrics endpoint is at `address`, HOST:PORT: the ports whose names
/// contain `search`, sorted by `sort` (name, queued, waiting, dropped, put), at most `limit`.
/// Waits a few seconds at most. Throws UsageError for a malformed address, Unreachable.
Json read_board(const std::string& address, const std::string& search, const std::string& sort,
                std::size_t limit);

}  // namespace portsvc::tools
