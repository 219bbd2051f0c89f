#include "tests/chaos/relay.h"

#include <ace/INET_Addr.h>
#include <ace/SOCK_Connector.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <stdexcept>

namespace portsvc {

Relay::Link::~Link() {
  for (std::thread& pump : pumps) {
    if (pump.joinable()) pump.join();
  }
  for (ACE_SOCK_Stream& end : ends) end.close();
}

Relay::Relay(int target) : target_(target) {
  ACE_INET_Addr address(u_short{0}, ACE_LOCALHOST);
  if (acceptor_.open(address, 0, PF_INET, 1000) != 0 || acceptor_.get_local_addr(address) != 0) {
    throw std::runtime_error("the relay cannot listen");
  }
  acceptor_.enable(ACE_CLOEXEC);
  port_ = address.get_port_number();
  accepting_ = std::thread([this] { accept_all(); });
}

Relay::~Relay() {
  stop_ = true;
  accepting_.join();
  acceptor_.close();
}

void Relay::cut(unsigned int one_in, bool half) {
  const std::lock_guard<std::mutex> guard(lock_);
  for (Link& link : links_) {
    if (++turn_ % one_in != 0 || link.open != 2) continue;
    // Half: the server hears that nothing more comes, and may still answer.
    ::shutdown(link.ends[1].get_handle(), half ? SHUT_WR : SHUT_RDWR);
    if (!half) ::shutdown(link.ends[0].get_handle(), SHUT_RDWR);
  }
}

void Relay::accept_all() {
  const ACE_INET_Addr server(static_cast<u_short>(target_), ACE_LOCALHOST);
  while (!stop_) {
    ACE_Time_Value soon(0, 100000);
    ACE_SOCK_Stream ends[2];
    if (acceptor_.accept(ends[0], nullptr, &soon) != 0) continue;
    if (ACE_SOCK_Connector().connect(ends[1], server) != 0) {
      ends[0].close();
      continue;
    }
    const std::lock_guard<std::mutex> guard(lock_);
    links_.remove_if([](const Link& link) { return link.open == 0; });
    Link& link = links_.emplace_back();
    for (const int i : {0, 1}) {
      ends[i].enable(ACE_CLOEXEC);
      link.ends[i] = ends[i];
    }
    for (const int i : {0, 1}) link.pumps[i] = std::thread([&, i] { pump(link, i); });
  }
}

void Relay::pump(Link& link, int from) {
  const ACE_SOCK_Stream& in = link.ends[from];
  const ACE_SOCK_Stream& out = link.ends[1 - from];
  std::array<char, 16384> chunk;
  while (!stop_) {
    const ACE_Time_Value soon(0, 100000);
    const ssize_t got = in.recv(chunk.data(), chunk.size(), &soon);
    if (got < 0 && errno == ETIME) continue;
    if (got <= 0) break;
    if (delay_ms_ > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms_));
    if (out.send_n(chunk.data(), static_cast<std::size_t>(got), MSG_NOSIGNAL) <= 0) break;
  }
  ::shutdown(out.get_handle(), SHUT_WR);
  --link.open;
}

}  // namespace portsvc
