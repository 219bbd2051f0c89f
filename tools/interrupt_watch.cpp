#include "tools/interrupt_watch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

#include "tools/interrupt.h"

namespace portsvc::tools {

void pause_for(std::chrono::milliseconds time) {
  pollfd interrupt{interrupt_fd(), POLLIN, 0};
  (void)::poll(&interrupt, 1, static_cast<int>(time.count()));
  throw_if_interrupted();
}

InterruptWatch::InterruptWatch(std::function<void()> on_interrupt)
    : stop_(::eventfd(0, EFD_CLOEXEC)) {
  if (stop_ < 0) throw std::system_error(errno, std::generic_category(), "cannot make an event");
  thread_ = std::thread([this, on_interrupt = std::move(on_interrupt)] {
    std::array<pollfd, 2> watched{pollfd{interrupt_fd(), POLLIN, 0}, pollfd{stop_, POLLIN, 0}};
    (void)::poll(watched.data(), watched.size(), -1);
    if (interrupted() != 0) on_interrupt();
  });
}

InterruptWatch::~InterruptWatch() {
  const std::uint64_t one = 1;
  (void)!::write(stop_, &one, sizeof(one));
  thread_.join();
  ::close(stop_);
}

}  // namespace portsvc::tools
