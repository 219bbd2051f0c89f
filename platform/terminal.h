// The terminal that a program's standard streams are.
#pragma once

#include <memory>
#include <optional>

namespace portsvc {

struct Terminal_Size {
  unsigned int rows = 24;
  unsigned int columns = 80;
};

/// The size of the terminal that standard output is; the usual one when it does not tell.
Terminal_Size terminal_size();

/// While it lives, standard input hands out keys singly and does not echo them.
class Single_Keys {
 public:
  Single_Keys();
  /// As it was before.
  ~Single_Keys();
  Single_Keys(const Single_Keys&) = delete;
  Single_Keys& operator=(const Single_Keys&) = delete;

 private:
  struct Settings;
  std::unique_ptr<Settings> before_;
};

/// The next key of standard input, nothing at its end. Waits for it.
std::optional<char> next_key();

}  // namespace portsvc
