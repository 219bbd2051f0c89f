// Owning a port or a box: what Owner, Box and Subscription have in common. For this folder only.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "client/link.h"
#include "middleware/owner_note.h"

namespace portsvc::client::detail {

/// As Connection::hosts().
Result read_hosts(Link& link, std::map<std::string, std::string>& hosts);

/// What callers are told of a note.
OwnerWord word_of(const OwnerNote& note);

class Ownership {
 public:
  /// What is owned.
  enum class What { port, box, subscription };

  /// Connects, or throws Error. `codes` are those of a subscription, whose box is made here.
  Ownership(std::shared_ptr<Link> link, What what, std::string name, OwnerOptions options,
            std::vector<unsigned int> codes = {});
  /// Disconnects; a subscription's box is deleted.
  ~Ownership();
  Ownership(const Ownership&) = delete;
  Ownership& operator=(const Ownership&) = delete;

  using Take = std::function<unsigned int(Port_Factory_ptr, unsigned int id, unsigned int seconds)>;
  /// Waits in slices until `take` answers something other than `timed_out`, connecting again when
  /// the server has been lost. `take` waits for `seconds`, not at all for 0. `life` becomes the
  /// life in which it has taken.
  Result wait(Timeout timeout, const Take& take, std::uint64_t& life);
  Result take(std::vector<Payload>& events, unsigned int most, Timeout timeout);
  /// Takes what there is, without waiting, and tells in which life.
  Result take_now(std::vector<Payload>& events, unsigned int most, std::uint64_t& life);
  /// After a take has found nothing: not_connected when somebody has released the port. The server
  /// lets whoever knows the id go on waiting, for nothing. Of a proxy it is not asked: its owner
  /// comes back by itself when the main server does.
  Result still_owned(std::uint64_t life);

  Link& link() const { return *link_; }
  const std::string& name() const { return name_; }
  Access access() const { return options_.access; }
  bool ended() const { return ended_.load(); }
  unsigned int id() const;
  std::uint64_t gaps() const { return gaps_.load(); }
  /// Ends the waits; when it returns none of them is in a server that answers.
  void cancel();

  /// Sees to it that the port is owned in the life that the server is in.
  Result hold(unsigned int& id, std::uint64_t& life);
  /// The port is owned no more, unless that has been seen to since.
  void lose(std::uint64_t life);

 private:
  class Taking;

  /// One call of `take`, connecting first if need be. `stale`: at once again, in another life.
  Result attempt(std::chrono::seconds longest, const Take& take, std::uint64_t& life);
  Result connect(bool again, unsigned int& id);
  Result take_over(bool again, std::chrono::steady_clock::time_point since, bool& wait);
  Result make_box();
  std::string text_at_port(bool& any);
  void release();

  const std::shared_ptr<Link> link_;
  const What what_;
  const std::string name_;
  const OwnerOptions options_;
  const std::vector<unsigned int> codes_;
  const std::string note_;
  std::atomic<bool> ended_{false};
  std::atomic<std::uint64_t> gaps_{0};

  mutable std::mutex lock_;  // guards what follows; nothing is called under it
  std::condition_variable changed_;
  bool connecting_ = false;
  int taking_ = 0;  // calls of `take` that are under way
  unsigned int id_ = 0;
  std::uint64_t life_ = 0;  // in which the port is owned, 0: in none
};

}  // namespace portsvc::client::detail
