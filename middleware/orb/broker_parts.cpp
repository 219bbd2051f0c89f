#include "middleware/orb/broker_parts.h"

#include <fmt/format.h>
#include <netdb.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <string_view>
#include <utility>

namespace portsvc::orb {

Endpoint parse_endpoint(const std::string& text) {
  constexpr std::string_view prefix = "giop:tcp:";
  constexpr std::string_view tls_prefix = "giop:ssl:";  // as long as the other
  const auto colon = text.rfind(':');
  const bool tls = text.compare(0, tls_prefix.size(), tls_prefix) == 0;
  if ((tls || text.compare(0, prefix.size(), prefix) == 0) && colon >= prefix.size()) {
    Endpoint endpoint;
    endpoint.tls = tls;
    endpoint.host = text.substr(prefix.size(), colon - prefix.size());
    const char* const end = text.data() + text.size();
    const auto number = std::from_chars(text.data() + colon + 1, end, endpoint.port);
    std::string& host = endpoint.host;
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (number.ec == std::errc() && number.ptr == end && endpoint.port <= 65535 &&
        (bracketed || host.find(':') == std::string::npos)) {
      if (bracketed) host = host.substr(1, host.size() - 2);
      return endpoint;
    }
  }
  throw Error(fmt::format(
      "the endpoint '{}' is malformed, wanted: giop:tcp:HOST:PORT or giop:ssl:HOST:PORT", text));
}

// A broker itself says no more than that it cannot start.
void check(const Options& options) {
  const Tls& tls = options.tls;
  const Endpoint endpoint =
      options.endpoint.empty() ? Endpoint() : parse_endpoint(options.endpoint);
  if (!tls.in_use()) {
    if (endpoint.tls) throw Error("a giop:ssl endpoint needs a certificate and its authorities");
    return;
  }
  const auto require = [](const std::string& path, const char* what) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw Error(fmt::format("cannot read {}", path));
    const std::string text(std::istreambuf_iterator<char>(file), {});
    if (text.find(fmt::format("{}-----", what)) == std::string::npos) {
      throw Error(fmt::format("there is no {} in {}", what, path));
    }
  };
  require(tls.authorities, "CERTIFICATE");
  require(tls.key, "CERTIFICATE");
  require(tls.key, "PRIVATE KEY");
}

std::chrono::milliseconds usual_timeout_within(std::chrono::milliseconds in_force) {
  const std::chrono::milliseconds usual = peer_call_timeout();
  return in_force.count() == 0 ? usual : std::min(usual, in_force);
}

std::string why_not_listening(const Endpoint& endpoint) {
  const std::string& host = endpoint.host;
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int failure = host.empty() ? 0 : ::getaddrinfo(host.c_str(), nullptr, &hints, &found);
  if (failure != 0) return fmt::format("the host '{}' is unknown", host);
  if (found) ::freeaddrinfo(found);
  return "the address is in use or not local";
}

PatientShutdown::~PatientShutdown() {
  if (thread_.joinable()) thread_.join();
}

bool PatientShutdown::run(CORBA::ORB_ptr orb, std::chrono::milliseconds patience) {
  if (!ended_.valid()) {
    std::promise<void> end;
    ended_ = end.get_future();
    const CORBA::ORB_var mine = CORBA::ORB::_duplicate(orb);
    thread_ = std::thread(
        [mine](std::promise<void> ended) {
          try {
            mine->shutdown(true);
          } catch (const CORBA::Exception&) {
            // Shut down already.
          }
          ended.set_value();
        },
        std::move(end));
  }
  return ended_.wait_for(patience) == std::future_status::ready;
}

}  // namespace portsvc::orb
