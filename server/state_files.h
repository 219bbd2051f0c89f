// The files a server leaves for others, and for its own next run.
#pragma once

#include <optional>
#include <string>

#include "platform/file.h"

namespace portsvc::server {

/// Makes `folder`, with its parents, the process's state folder; empty leaves it beside the
/// executable.
class State_Folder {
 public:
  /// Throws std::runtime_error, also when another server works in the folder, or when a file that
  /// the server would write is a symbolic link or no file at all.
  explicit State_Folder(const std::string& folder);
  State_Folder(const State_Folder&) = delete;
  State_Folder& operator=(const State_Folder&) = delete;

 private:
  File locked_;  // the folder of the snapshot; free again when this goes, as with the process
};

/// What a start finds of earlier runs.
struct Found_Snapshot {
  std::optional<std::string> to_load;  ///< nothing when there is nothing to create
  std::string message;                 ///< what is restored, or why nothing
};

enum class Restore { no, whole, damaged };

/// Takes the snapshot of the last run out of the way of the servant, whose constructor deletes it,
/// and chooses what to restore: the newest whole file of it and portsnap.previous, else with
/// Restore::damaged the one with most whole records. Throws std::runtime_error, having changed
/// nothing, when there are only damaged ones and `restore` is Restore::whole.
Found_Snapshot set_aside_snapshot(Restore restore);

/// Writes a file so that whoever finds it finds it whole. Throws std::runtime_error.
void write_by_rename(const std::string& path, const std::string& content);

}  // namespace portsvc::server
