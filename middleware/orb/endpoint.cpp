#include "middleware/orb/endpoint.h"

#include <fmt/format.h>

#include <cctype>
#include <charconv>
#include <string_view>

#include "middleware/orb/orb.h"
#include "platform/sockets.h"

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

std::string why_not_listening(const Endpoint& endpoint) {
  if (!endpoint.host.empty() && !host_is_known(endpoint.host)) {
    return fmt::format("the host '{}' is unknown", endpoint.host);
  }
  return "the address is in use or not local";
}

std::string other_spelling(std::string host) {
  const bool bracketed = host.front() == '[';
  const auto octets = address_octets(bracketed ? host.substr(1, host.size() - 2) : host);
  if (octets.size() == 4) {
    return fmt::format("0x{:02x}{:02x}{:02x}{:02x}", octets[0], octets[1], octets[2], octets[3]);
  }
  if (!octets.empty()) {
    std::string text;
    for (std::size_t i = 0; i < octets.size(); i += 2) {
      text += fmt::format("{}{:02X}{:02X}", i == 0 ? '[' : ':', octets[i], octets[i + 1]);
    }
    return text + ']';
  }
  for (char& letter : host) {
    if (std::islower(static_cast<unsigned char>(letter)) != 0) {
      letter = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
    }
  }
  return host;
}

}  // namespace portsvc::orb
