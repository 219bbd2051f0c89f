// What a snapshot holds, as a text.
#pragma once

#include <fmt/format.h>

#include <string>

#include "persistence/snapshot_file.h"

namespace portsvc::snapshot {

/// "NAME/KIND/LIMIT " for each port, with ! for a persistent one, then "CODE:NAME " for each
/// subscription.
inline std::string all_of(const Content& content) {
  std::string text;
  for (const auto& [name, kind, limit, persistent] : content.ports) {
    text += fmt::format("{}/{}/{}{} ", name, kind, limit, persistent ? "!" : "");
  }
  for (const auto& [code, name] : content.subscriptions) text += fmt::format("{}:{} ", code, name);
  return text;
}

}  // namespace portsvc::snapshot
