#include "tools/failures.h"

#include <fmt/core.h>

#include <chrono>

#include "platform/reach.h"

namespace portsvc::tools {
namespace {

constexpr std::chrono::seconds patience{2};

// What an address says to whoever tries to connect, for people.
std::string why_not_connected(const orb::Address& address) {
  const std::string at = fmt::format("{}:{}", address.host, address.port);
  switch (reach(address.host, address.port, patience)) {
    case Reach::unknown_host:
      return fmt::format("the host name '{}' is unknown; check its spelling, or give a number",
                         address.host);
    case Reach::refused:
      return fmt::format(
          "connection refused: nothing listens at {}; is port_server running, with this "
          "--endpoint?",
          at);
    case Reach::no_route:
      return fmt::format("there is no way to {}; check the address and the network", at);
    case Reach::silent:
      return fmt::format(
          "{} does not answer: the machine is off or frozen, or a firewall stands between", at);
    case Reach::connected:
      break;
  }
  if (address.tls) {
    return fmt::format(
        "{} is there, but TLS fails: it may serve without TLS, or one side does not trust the "
        "other's certificate (--tls-ca, --tls-key)",
        at);
  }
  return fmt::format(
      "{} is there, but ends the connection: it may take TLS alone (--tls-ca, --tls-key), be at "
      "its limit of connections, or be no port service",
      at);
}

}  // namespace

std::string failure_text(const std::string& server, CORBA::Object_ptr object,
                         const GlobalOptions& options, const CORBA::Exception& exception) {
  std::string meaning = orb::describe(exception);
  switch (orb::kind_of(exception)) {
    case orb::Failing::not_connected:
      // Without TLS of its own a broker sees no address in a reference that takes TLS alone.
      if (!options.tls.in_use()) {
        meaning += "; if it serves with TLS alone, give --tls-ca and --tls-key";
      }
      for (const orb::Address& address : orb::addresses(object)) {
        meaning = why_not_connected(address);
      }
      break;
    case orb::Failing::lost:
      meaning += "; whether it was carried out is not known";
      for (const orb::Address& address : orb::addresses(object)) {
        if (reach(address.host, address.port, patience) != Reach::connected) {
          meaning += "; now: " + why_not_connected(address);
        } else if (address.tls) {
          // Some versions of TLS refuse a client once it believes to be connected.
          meaning += "; or it does not trust the certificate here (--tls-ca there, --tls-key here)";
        }
      }
      break;
    case orb::Failing::late:
      meaning = fmt::format(
          "no answer within the time of a call ({} s, --call-timeout): the server is frozen or "
          "very busy",
          options.call_timeout);
      break;
    case orb::Failing::stopping:
      meaning = "the server is stopping; try again once it has been started again";
      break;
    case orb::Failing::too_large:
    case orb::Failing::other:
      break;
  }
  return fmt::format("{}: {}", server, meaning);
}

}  // namespace portsvc::tools
