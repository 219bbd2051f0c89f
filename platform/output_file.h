// Files that a person names and a program writes.
#pragma once

#include <string>
#include <string_view>

namespace portsvc {

/// True for "-", the name of standard output.
inline bool is_standard_output(const std::string& path) { return path == "-"; }

/// Leaves `bytes`, whole, under the name `path`. A regular file and a new name get them through a
/// temporary name beside them and a rename, so that whoever finds the file finds it whole; an
/// earlier file's permissions stay. A symbolic link is followed, also to a file that does not exist
/// yet. Devices, pipes and this process's own standard streams are written to where they are, and
/// "-" is standard output. Throws std::runtime_error that says what failed.
void write_output_file(const std::string& path, std::string_view bytes);

}  // namespace portsvc
