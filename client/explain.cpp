// What is told to people: why a server cannot be reached, what a directory lists, who owns a port.
#include <fmt/format.h>

#include "client/link.h"
#include "platform/reach.h"

namespace portsvc::client {
namespace {

constexpr std::chrono::seconds patience{2};

// What an address says to whoever tries to connect.
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
        "other's certificate",
        at);
  }
  return fmt::format(
      "{} is there, but ends the connection: it may take TLS alone, be at its limit of "
      "connections, or be no port service",
      at);
}

std::vector<ListedServer> listed(Directory& directory, const std::string& realm) {
  std::vector<ListedServer> servers;
  for (const bool main : {true, false}) {
    for (std::string& name : directory.servers(main ? role_main : role_sub, realm)) {
      servers.push_back({std::move(name), main});
    }
  }
  return servers;
}

std::string text_without(const orb::Broker& broker, Directory& directory, const Options& options,
                         const std::string& wanted) {
  std::string place = options.directory;
  if (place.empty()) {
    place = "the naming service " + options.naming;
    const CORBA::Object_var service = broker.from_text(options.naming);
    try {
      const orb::CallTimeout limit(options.call_timeout);
      (void)service->_non_existent();
    } catch (const CORBA::Exception& exception) {
      const auto addresses = orb::addresses(service.in());
      return fmt::format("{}: {}", place,
                         orb::kind_of(exception) != orb::Failing::not_connected || addresses.empty()
                             ? orb::describe(exception)
                             : why_not_connected(addresses.back()));
    }
  }
  if (!options.realm.empty()) place += fmt::format(", realm {},", options.realm);
  std::string known;
  for (const ListedServer& server : listed(directory, options.realm)) {
    known += (known.empty() ? "" : ", ") + server.name;
  }
  return fmt::format("{} lists no {}; {}", place, wanted,
                     known.empty() ? "it lists none at all" : "it lists " + known);
}

struct Place {
  explicit Place(const Options& options)
      : broker(detail::broker_for(options)), directory(detail::directory_for(*broker, options)) {
    if (directory) return;
    throw Error("there is no directory and no naming service", Result(failure::bad_address));
  }
  std::shared_ptr<orb::Broker> broker;  // goes last
  std::shared_ptr<Directory> directory;
};

}  // namespace

std::vector<ListedServer> servers(const Options& options) {
  const Place place(options);
  return listed(*place.directory, options.realm);
}

std::string not_listed_text(const Options& options, const std::string& wanted) {
  const Place place(options);
  return text_without(*place.broker, *place.directory, options, wanted);
}

std::string OwnerWord::text() const {
  return fmt::format("{}, process {} of {}", program, process, host);
}

std::string detail::Link::explain(Result failed) {
  const orb::Failing failing = last_failing();
  std::string meaning(failed.meaning());
  switch (failed.code()) {
    case failure::not_listed:
      return text_without(*broker_, *directory_, options_, fmt::format("server '{}'", server_));
    case failure::bad_address:
      return last_words();
    case failure::unreachable:
    case failure::lost: {
      if (failing == orb::Failing::late) {
        meaning = fmt::format(
            "no answer within the time of a call ({:g} s): the server is frozen or very busy",
            std::chrono::duration<double>(options_.call_timeout).count());
        break;
      }
      const bool lost = failed == failure::lost;
      meaning = last_words();
      if (lost) meaning += "; whether it was carried out is not known";
      // Without TLS of its own a broker sees no address in a reference that takes TLS alone.
      if (failing == orb::Failing::not_connected && options_.tls.authorities.empty()) {
        meaning += "; if it serves with TLS alone, this side must use it too";
      }
      Port_Factory_var server;
      {
        const std::lock_guard<std::mutex> guard(lock_);
        server = latest_;
      }
      for (const orb::Address& address : orb::addresses(server.in())) {
        if (!lost) {
          meaning = why_not_connected(address);
        } else if (reach(address.host, address.port, patience) != Reach::connected) {
          meaning += "; now: " + why_not_connected(address);
        } else if (address.tls) {
          // Some versions of TLS refuse a client once it believes to be connected.
          meaning += "; or TLS fails: it does not trust the certificate of this side";
        }
      }
      break;
    }
    case refusal::stopping:
      meaning += "; try again once it has been started again";
      break;
    case failure::broker:
      meaning = last_words();
      break;
    default:
      break;
  }
  return fmt::format("{}: {}", server_, meaning);
}

}  // namespace portsvc::client
