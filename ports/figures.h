// What a port tells of itself to those who run the system.
#pragma once

#include <cstdint>
#include <string>

namespace portsvc {

/// What has gone through a queue or box since it was made. Everything put in is still there, or was
/// taken, dropped or cleared.
struct Flow {
  std::uint64_t queued = 0;   ///< there now
  std::uint64_t put = 0;      ///< put in
  std::uint64_t taken = 0;    ///< by an owner, or by the client that a reply was for
  std::uint64_t dropped = 0;  ///< because the queue was full
  std::uint64_t cleared = 0;  ///< because somebody asked for it
};

/// Copies of a main server's event data for its sub servers; one packet makes a copy for each.
struct Forwarded {
  std::uint64_t pending = 0;
  std::uint64_t sent = 0;
  std::uint64_t lost = 0;  ///< not delivered, given up with one that was not, or too many at once
};

/// A port at one moment. Its parts are read one after the other, while others may change it.
struct Port_Figures {
  std::string name;
  unsigned int kind = 0;  ///< of port_codes.h
  unsigned int port_id = 0;
  unsigned int limit = 0;
  bool owner_connected = false;
  unsigned int owner_access = 0;  ///< of the last owner
  std::string host;               ///< what the owner has told of itself
  std::uint64_t clients = 0;
  /// Packets; in an event box its events. A proxy keeps none: there it is what was passed on.
  Flow packets;
  Flow replies;
  unsigned int senders_waiting = 0;
  unsigned int takers_waiting = 0;
  unsigned int reply_takers_waiting = 0;
  unsigned int selections = 0;
  bool persistent = true;  ///< event boxes
  bool copied = false;     ///< what is forwarded into it goes to the sub servers as well
  Forwarded copies;
};

}  // namespace portsvc
