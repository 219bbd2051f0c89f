#include "platform/sockets.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>

#include "platform/process.h"

namespace portsvc {
namespace {

void set(int socket, int level, int option, int value) {
  ::setsockopt(socket, level, option, &value, sizeof value);
}

}  // namespace

boost::container::static_vector<unsigned char, 16> address_octets(const std::string& host) {
  for (const auto& [family, size] :
       {std::pair(AF_INET, sizeof(in_addr)), std::pair(AF_INET6, sizeof(in6_addr))}) {
    boost::container::static_vector<unsigned char, 16> octets(size);
    if (::inet_pton(family, host.c_str(), octets.data()) == 1) return octets;
  }
  return {};
}

bool host_is_known(const std::string& host) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return false;
  ::freeaddrinfo(found);
  return true;
}

std::string peer_address(int socket) {
  sockaddr_storage peer{};
  socklen_t length = sizeof peer;
  std::array<char, INET6_ADDRSTRLEN> host{};
  if (::getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &length) != 0) return {};
  if (peer.ss_family == AF_INET) {
    const auto* const v4 = reinterpret_cast<const sockaddr_in*>(&peer);
    ::inet_ntop(AF_INET, &v4->sin_addr, host.data(), host.size());
    return std::string(host.data()) + ":" + std::to_string(ntohs(v4->sin_port));
  }
  const auto* const v6 = reinterpret_cast<const sockaddr_in6*>(&peer);
  ::inet_ntop(AF_INET6, &v6->sin6_addr, host.data(), host.size());
  return "[" + std::string(host.data()) + "]:" + std::to_string(ntohs(v6->sin6_port));
}

bool other_end_gone(int socket) {
  pollfd end{socket, POLLRDHUP, 0};
  return ::poll(&end, 1, 0) > 0 && (end.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

void give_up_dead_connection(int socket, std::chrono::milliseconds untaken,
                             std::chrono::seconds idle, std::chrono::seconds between) {
  set(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, static_cast<int>(untaken.count()));
  set(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
  set(socket, IPPROTO_TCP, TCP_KEEPIDLE, static_cast<int>(idle.count()));
  set(socket, IPPROTO_TCP, TCP_KEEPINTVL, static_cast<int>(between.count()));
}

void adjust_listening_sockets(std::chrono::milliseconds untaken) {
  constexpr std::uint64_t most = 4096;
  const int end = static_cast<int>(std::min(most_open_files().value_or(0), most));
  for (int file = 0; file < end; ++file) {
    int listens = 0;
    socklen_t size = sizeof listens;
    if (::getsockopt(file, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) != 0 || !listens) continue;
    set(file, IPPROTO_TCP, TCP_USER_TIMEOUT, static_cast<int>(untaken.count()));
    ::listen(file, SOMAXCONN);
  }
}

}  // namespace portsvc
