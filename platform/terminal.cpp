#include "platform/terminal.h"

#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace portsvc {

Terminal_Size terminal_size() {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0) return {};
  return {size.ws_row, size.ws_col};
}

struct Single_Keys::Settings {
  termios terminal{};
};

Single_Keys::Single_Keys() : before_(std::make_unique<Settings>()) {
  ::tcgetattr(STDIN_FILENO, &before_->terminal);
  termios single = before_->terminal;
  single.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  ::tcsetattr(STDIN_FILENO, TCSANOW, &single);
}

Single_Keys::~Single_Keys() { ::tcsetattr(STDIN_FILENO, TCSANOW, &before_->terminal); }

std::optional<char> next_key() {
  char key = 0;
  if (::read(STDIN_FILENO, &key, 1) != 1) return std::nullopt;
  return key;
}

}  // namespace portsvc
