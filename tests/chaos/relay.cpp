#include "tests/chaos/relay.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <stdexcept>

#include "tests/system/process.h"

namespace portsvc {
namespace {

bool wait_for_input(int socket) {
  pollfd readable{socket, POLLIN, 0};
  return ::poll(&readable, 1, 100) > 0;
}

}  // namespace

Relay::Relay(int target)
    : target_(target), listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof(address);
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  if (::bind(listener_, any, size) != 0 || ::listen(listener_, 1000) != 0 ||
      ::getsockname(listener_, any, &size) != 0) {
    throw std::runtime_error("the relay cannot listen");
  }
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { accept_all(); });
}

Relay::~Relay() {
  stop_ = true;
  acceptor_.join();
  ::close(listener_);
  for (const auto& link : links_) {
    for (std::thread& pump : link->pumps) pump.join();
    for (const int end : link->ends) ::close(end);
  }
}

void Relay::cut(unsigned int one_in, bool half) {
  const std::lock_guard<std::mutex> guard(lock_);
  for (const auto& link : links_) {
    if (++turn_ % one_in != 0 || link->open != 2) continue;
    // Half: the server hears that nothing more comes, and may still answer.
    ::shutdown(link->ends[1], half ? SHUT_WR : SHUT_RDWR);
    if (!half) ::shutdown(link->ends[0], SHUT_RDWR);
  }
}

void Relay::accept_all() {
  while (!stop_) {
    if (!wait_for_input(listener_)) continue;
    const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(target_);
    if (::connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
      ::close(server);
      ::close(client);
      continue;
    }
    const std::lock_guard<std::mutex> guard(lock_);
    links_.remove_if([](const std::unique_ptr<Link>& link) {
      if (link->open != 0) return false;
      for (std::thread& pump : link->pumps) pump.join();
      for (const int end : link->ends) ::close(end);
      return true;
    });
    links_.push_back(std::make_unique<Link>());
    Link& link = *links_.back();
    link.ends[0] = client;
    link.ends[1] = server;
    for (const int from : {0, 1}) link.pumps[from] = std::thread([&, from] { pump(link, from); });
  }
}

void Relay::pump(Link& link, int from) {
  std::array<char, 16384> chunk;
  while (!stop_) {
    if (!wait_for_input(link.ends[from])) continue;
    const ssize_t got = ::recv(link.ends[from], chunk.data(), chunk.size(), 0);
    if (got <= 0) break;
    if (delay_ms_ > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms_));
    if (::send(link.ends[1 - from], chunk.data(), static_cast<std::size_t>(got), MSG_NOSIGNAL) <= 0)
      break;
  }
  ::shutdown(link.ends[1 - from], SHUT_WR);
  --link.open;
}

}  // namespace portsvc
