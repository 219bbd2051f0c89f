// What a sub server knows of the life its main server is in.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "middleware/orb/orb.h"
#include "persistence/handle_file.h"
#include "ports/servant_hooks.h"

namespace portsvc {

/// The one place that knows whether the main server is still the one it was, and what this server
/// has open in it.
///
/// A main server that has been restarted knows nothing of what it has handed out, and hands the
/// same numbers out again. Its life shows in its table of who keeps which port, which ends with it:
/// a sub server that meets it enters a mark there, a name that no port has with a text that nobody
/// else makes up. The main server takes the mark away when it gives the sub server up for dead, so
/// that its life is another then, too (Sub_Servers). A server that keeps no such mark is taken for
/// the same until it has been lost and reached anew.
///
/// Every operation may be called from any thread.
class Main_Life {
 public:
  /// `self` is this server's name towards others; it begins the marks it makes.
  explicit Main_Life(std::string self);

  /// Remembers in a file what is open, so that a server that was killed can close it when it is
  /// started again: what the file holds from an earlier run is left open in its life. Call it
  /// before the main server is met. Throws std::runtime_error.
  void keep_in(const std::string& path);

  /// The number of the life `peer` is in. Asks it if a connection to it has been opened since it
  /// was asked last, or if `certainly`; that takes up to four calls and throws what they throw.
  std::uint64_t of(Varo::DT_PORT_SVC::Port_Factory_ptr peer, bool certainly);
  /// The main server has been reached anew after it was lost.
  void reached_anew();

  /// What has become of a client handle that was given in a life; others than the present one are
  /// forgotten already.
  void note(unsigned int handle, std::uint64_t life, PeerHandle now);
  /// The handles that are left open in the present life, and its number. Of more than
  /// Handle_File::capacity open at once the rest is not known.
  std::vector<unsigned int> left_open(std::uint64_t& life) const;

 private:
  void begin(const std::string& mark, Varo::DT_PORT_SVC::Port_Factory_ptr peer,
             std::uint64_t connections);

  const std::string self_;
  std::atomic<bool> first_{true};  ///< no main server has been met, and no mark is remembered
  mutable std::mutex lock_;        ///< guards what follows; nothing is called or taken under it
  std::uint64_t number_ = 1;
  std::string mark_;                          ///< empty before the first was seen
  Varo::DT_PORT_SVC::Port_Factory_var peer_;  ///< who was asked last...
  std::uint64_t connections_ = 0;             ///< ...and the connections opened to it by then
  Handle_File file_;
  std::map<unsigned int, bool> open_;  ///< handle, true when it is left open
};

}  // namespace portsvc
