// Result codes, kinds, modes and limits of the port service, for C++ that includes no broker:
// servants, clients, tests and tools. The interface definition has the same constants for everybody
// else; the build fails where the two differ (middleware/orb/port_codes_check.cpp).
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

// Port kinds: what a port object is, and what create_port is asked for.
constexpr unsigned int PORT_MASTER = 30005;    ///< packet port whose owner this server serves
constexpr unsigned int PORT_EVENTBOX = 30006;  ///< box of events
constexpr unsigned int PORT_SLAVE = 30007;     ///< proxy for the port of the peer server

// Connection modes of connect_port.
constexpr unsigned int CONNECT_CLIENT = 30003;
constexpr unsigned int CONNECT_OWNER = 30004;

// Access modes of connect_port.
constexpr unsigned int ACCESS_SELECT = 30001;  ///< takes do not block; the port can be selected
constexpr unsigned int ACCESS_WAIT = 30002;    ///< takes block until their time-out

namespace portsvc {

/// Result codes. A code keeps its meaning across operations; each operation keeps its own code
/// for a missing port (no_such_port, unknown_name or unknown_handle).
namespace result {
constexpr unsigned int ok = 0;
constexpr unsigned int snapshot_not_writable = 2;
constexpr unsigned int no_such_port = 3;       ///< get_port_info
constexpr unsigned int bad_mode = 4;           ///< connection mode or kind unknown
constexpr unsigned int out_of_memory = 5;      ///< an out value could not be allocated
constexpr unsigned int already_exists = 6;     ///< sub role create_port
constexpr unsigned int servant_lock = 10;      ///< a lock of the servant could not be taken
constexpr unsigned int no_peer = 99;           ///< no reference to the peer server
constexpr unsigned int peer_disconnect = 111;  ///< the peer's disconnect_port failed
constexpr unsigned int peer_forward = 112;     ///< a forwarding call to the peer failed
constexpr unsigned int peer_receive = 123;     ///< a receiving or answering call failed
constexpr unsigned int timed_out = 2000;       ///< nothing to take before the time-out
constexpr unsigned int unknown_name = 2001;    ///< no such name; in a queue: none for the handle
constexpr unsigned int queue_empty = 2002;
constexpr unsigned int nothing_arrived = 2003;  ///< non-blocking take found nothing
constexpr unsigned int owner_exists = 2004;
constexpr unsigned int not_connected = 2005;  ///< owner or client not, or no longer, connected
constexpr unsigned int owner_not_taking = 2006;
constexpr unsigned int unknown_handle = 2007;    ///< no port for that handle or port id
constexpr unsigned int access_refused = 2008;    ///< the access mode does not allow it
constexpr unsigned int nothing_selected = 2010;  ///< selection with nothing to wait on
constexpr unsigned int port_lock = 2011;         ///< a lock of a port could not be taken
constexpr unsigned int already_subscribed = 2014;
constexpr unsigned int reply_timed_out = 2016;
constexpr unsigned int send_timed_out = 2017;
constexpr unsigned int no_consumers = 3009;
constexpr unsigned int no_subscriptions = 3011;  ///< the subscription table is empty
constexpr unsigned int not_subscribed = 3012;    ///< nobody is subscribed under the code
constexpr unsigned int failed = 0xFFFFFFFF;      ///< see docs/result_codes.md, by operation
}  // namespace result

/// A result code with its symbolic name and a sentence for people.
struct ResultText {
  unsigned int code;
  std::string_view name;
  std::string_view meaning;
};

inline constexpr std::array<ResultText, 29> result_texts{{
    {result::ok, "ok", "success"},
    {result::snapshot_not_writable, "snapshot_not_writable",
     "the snapshot file could not be created or opened for writing"},
    {result::no_such_port, "no_such_port", "no port of that name"},
    {result::bad_mode, "bad_mode", "unknown connection mode or port kind"},
    {result::out_of_memory, "out_of_memory", "an answer could not be allocated"},
    {result::already_exists, "already_exists", "a port of that name exists already"},
    {result::servant_lock, "servant_lock", "a lock of the server could not be taken"},
    {result::no_peer, "no_peer", "no reference to the peer server could be obtained"},
    {result::peer_disconnect, "peer_disconnect", "disconnecting at the main server failed"},
    {result::peer_forward, "peer_forward", "forwarding to the peer server failed"},
    {result::peer_receive, "peer_receive", "receiving from or answering at the main server failed"},
    {result::timed_out, "timed_out", "the time-out ran out with nothing to take"},
    {result::unknown_name, "unknown_name", "no entry of that name"},
    {result::queue_empty, "queue_empty", "the queue is empty"},
    {result::nothing_arrived, "nothing_arrived", "nothing arrived and the caller does not block"},
    {result::owner_exists, "owner_exists", "an owner is connected already"},
    {result::not_connected, "not_connected", "the owner or the client is not connected"},
    {result::owner_not_taking, "owner_not_taking", "the owner is connected but not taking"},
    {result::unknown_handle, "unknown_handle", "no port for that handle, port id or name"},
    {result::access_refused, "access_refused", "the access mode does not allow the operation"},
    {result::nothing_selected, "nothing_selected", "nothing to wait on"},
    {result::port_lock, "port_lock", "a lock of a port or queue could not be taken"},
    {result::already_subscribed, "already_subscribed",
     "the name is subscribed under that code already"},
    {result::reply_timed_out, "reply_timed_out", "no answer before the time-out"},
    {result::send_timed_out, "send_timed_out", "no owner took the packet before the time-out"},
    {result::no_consumers, "no_consumers", "the main server knows no consumer"},
    {result::no_subscriptions, "no_subscriptions", "there are no event subscriptions at all"},
    {result::not_subscribed, "not_subscribed", "nobody is subscribed under that code"},
    {result::failed, "failed", "the operation failed; the main server may be unreachable"},
}};

/// The text of a code, or nullptr for a code the service never answers.
constexpr const ResultText* result_text(unsigned int code) {
  for (const ResultText& text : result_texts) {
    if (text.code == code) return &text;
  }
  return nullptr;
}

/// The name of a kind code, "unknown" for any other number.
constexpr std::string_view kind_name(unsigned int kind) {
  return kind == PORT_MASTER     ? "PORT_MASTER"
         : kind == PORT_EVENTBOX ? "PORT_EVENTBOX"
         : kind == PORT_SLAVE    ? "PORT_SLAVE"
                                 : "unknown";
}

/// Minor codes of the broker's exceptions with which a server refuses a call that no result code
/// fits: TRANSIENT while it stops, IMP_LIMIT above one of its limits. Nothing of the call has been
/// carried out.
namespace refusal {
constexpr unsigned int stopping = 0x50530001;
constexpr unsigned int blocked_calls = 0x50530002;
constexpr unsigned int ports = 0x50530003;
constexpr unsigned int clients = 0x50530004;
constexpr unsigned int queued_bytes = 0x50530005;
}  // namespace refusal

inline constexpr std::array<ResultText, 5> refusal_texts{{
    {refusal::stopping, "stopping", "the server is stopping"},
    {refusal::blocked_calls, "blocked_calls", "the server's limit of blocked calls is reached"},
    {refusal::ports, "ports", "the server's limit of ports is reached"},
    {refusal::clients, "clients", "the port's limit of clients is reached"},
    {refusal::queued_bytes, "queued_bytes", "the server's limit of queued bytes is reached"},
}};

/// The text of a refusal, or nullptr for another number.
constexpr const ResultText* refusal_text(unsigned int minor) {
  for (const ResultText& text : refusal_texts) {
    if (text.code == minor) return &text;
  }
  return nullptr;
}

/// The client handle of the first CONNECT_CLIENT connection of a server.
constexpr unsigned int first_client_handle = 758;
/// The client handle counter never hands out this value or one above it...
constexpr unsigned int client_handle_limit = 4294967294;
/// ...but goes on here.
constexpr unsigned int client_handle_restart = 10000;
/// Given to a queue's pop: any handle.
constexpr unsigned int any_handle = 0xFFFFFFFF;
/// Added to the source handle of a packet that reached an owner through a sub server.
constexpr unsigned int remote_client_offset = 300000000;
/// Replies a packet port keeps before the oldest is dropped.
constexpr unsigned int reply_limit = 32;

/// The object key of the service: corbaloc:iiop:HOST:PORT/PortService.
inline constexpr const char* object_key = "PortService";

}  // namespace portsvc
