// What the endpoint shows: a server, and what its host does beside it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/figures.h"

namespace portsvc::observe {

/// What does not change while a server serves.
struct About {
  std::string name;
  std::string role;          ///< "main" or "sub"
  std::int64_t started = 0;  ///< calendar seconds
};

/// A command whose lines go into an event box.
struct Feed_Figures {
  std::string box;
  bool running = false;
  std::uint64_t starts = 0;
  std::uint64_t lines = 0;  ///< that have gone into the box
};

/// A server at one moment.
struct Observed {
  Server_Figures server;
  std::vector<Feed_Figures> feeds;
};

}  // namespace portsvc::observe
