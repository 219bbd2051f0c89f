// The names of the servers of a role.
#pragma once

#include <string>
#include <vector>

namespace Kestrum {

/// A count and that many zero-terminated names; it owns them.
struct ServerNameList {
  int count() const { return static_cast<int>(names.size()); }
  const char* operator[](int index) const { return names[static_cast<std::size_t>(index)].c_str(); }

  std::vector<std::string> names;
};

/// Fills `list` with the names of the servers that the process's directory knows under `role`
/// ("main" or "slave"), in the directory's own, stable order. Answers 0, or -1 with an empty list
/// when the process has no directory. Never throws.
int GetServerNames(const char* role, ServerNameList& list);

}  // namespace Kestrum
