#include "platform/reach.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>

#include "platform/file.h"

namespace portsvc {
namespace {

/// 0 when connected, otherwise the error; ETIMEDOUT when there was no answer.
int connect(const addrinfo& to, std::chrono::milliseconds patience) {
  const File socket(::socket(to.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (socket.fd() < 0) return errno;
  if (::connect(socket.fd(), to.ai_addr, to.ai_addrlen) == 0) return 0;
  if (errno != EINPROGRESS) return errno;
  pollfd answer{socket.fd(), POLLOUT, 0};
  if (::poll(&answer, 1, static_cast<int>(patience.count())) <= 0) return ETIMEDOUT;
  int error = 0;
  socklen_t size = sizeof error;
  return ::getsockopt(socket.fd(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

}  // namespace

Reach reach(const std::string& host, std::uint16_t port, std::chrono::milliseconds patience) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
    return Reach::unknown_host;
  }
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> addresses(found, &::freeaddrinfo);
  switch (connect(*addresses, patience)) {
    case 0:
      return Reach::connected;
    case ECONNREFUSED:
      return Reach::refused;
    case ETIMEDOUT:
      return Reach::silent;
    default:
      return Reach::no_route;
  }
}

}  // namespace portsvc
