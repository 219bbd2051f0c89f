// The files a server leaves for others, and for its own next run.
#pragma once

#include <optional>
#include <string>

namespace portsvc::server {

/// Makes `folder`, with its parents, the process's state folder; empty leaves it beside the
/// executable. Throws std::runtime_error.
void use_state_folder(const std::string& folder);

/// Takes the snapshot of the previous run out of the way of the servant, whose constructor deletes
/// it, and answers the path it has now; nothing when there is no snapshot. Throws
/// std::runtime_error.
std::optional<std::string> set_aside_snapshot();

/// Writes a file so that whoever finds it finds it whole. Throws std::runtime_error.
void write_by_rename(const std::string& path, const std::string& content);

}  // namespace portsvc::server
