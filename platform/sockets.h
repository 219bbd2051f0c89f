// What a broker does not do with its sockets, and addresses as text. Sockets are given by number.
#pragma once

#include <boost/container/static_vector.hpp>
#include <chrono>
#include <string>

namespace portsvc {

/// The octets of a numeric address, 4 or 16; none for a name. An IPv6 address stands without
/// brackets.
boost::container::static_vector<unsigned char, 16> address_octets(const std::string& host);

/// Whether the host has an address. May ask a name server.
bool host_is_known(const std::string& host);

/// The other end of a connection, "HOST:PORT", an IPv6 address in brackets; empty when it has gone.
std::string peer_address(int socket);

/// True once the other end has closed the connection or the system has given it up.
bool other_end_gone(int socket);

/// The system gives a connection up of which nothing has been taken for `untaken`, or whose other
/// end has not answered for so long. One over which nothing goes is probed for that: after
/// `idle`, and then every `between`.
void give_up_dead_connection(int socket, std::chrono::milliseconds untaken,
                             std::chrono::seconds idle, std::chrono::seconds between);

/// Every socket on which this process listens gets the longest queue of connections that are not
/// accepted yet, and connections that are accepted there are given up as above, but are not probed.
void adjust_listening_sockets(std::chrono::milliseconds untaken);

}  // namespace portsvc
