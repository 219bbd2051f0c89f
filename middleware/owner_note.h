// The word that an owner leaves at its port, for whoever may take the port over.
#pragma once

#include <optional>
#include <string>

namespace portsvc {

/// "PROGRAM HOST PROCESS START": enough for a later owner on the same host to tell whether this one
/// still lives. The client library and portctl write it as the
/// port's connected host.
struct OwnerNote {
  std::string program;
  std::string host;
  unsigned int process = 0;
  unsigned long long started = 0;  ///< in clock ticks after boot: process ids come back

  static OwnerNote own();
  /// The note in a host text, nothing when the text is another one.
  static std::optional<OwnerNote> read(const std::string& text);
  std::string text() const;
  /// True when it names a process of this host that has ended.
  bool has_ended() const;
};

}  // namespace portsvc
