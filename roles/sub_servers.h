// What a main server knows of the sub servers that work with it.
#pragma once

#include <atomic>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace portsvc {

/// The names of marks, which no port has. A sub server enters its mark under the first, as it would
/// the keeper of a port, and asks for it at every beat; the first entry stays. Under the second it
/// enters one that takes the place of an earlier run's.
constexpr std::string_view mark_name = "\x01life ";
constexpr std::string_view first_mark_name = "\x01start ";

/// The marks of the sub servers, and the handles that each has open here: those of its clients and
/// the ids of the ports it owns. A sub server that is silent for too long ends: its mark and its
/// handles are forgotten, which it learns when it asks for the mark again. Thread-safe; nobody is
/// called.
class Sub_Servers {
 public:
  /// More are not kept, unless one with nothing open makes room.
  static constexpr std::size_t most = 1000;

  using Handles = std::vector<unsigned int>;

  /// Whether `name` is a mark's. Other names are none of these operations' business.
  static bool is_mark(std::string_view name);

  /// Enters a mark. Answers what an earlier run has left open, which is forgotten here.
  Handles enter(std::string_view name, const std::string& mark);
  /// The mark, empty when there is none. Its server is alive.
  std::string ask(std::string_view name);

  /// A server, if it is known here, has been given a handle; nobody has it any more. Never fail.
  void opened(const std::string& server, unsigned int handle) noexcept;
  void closed(unsigned int handle) noexcept;

  struct Ended {
    std::string server;
    Handles left_open;
  };
  /// Ends the servers that have something open and have been silent for more than `rounds` calls of
  /// this. Counted in calls: a process that was frozen itself takes nobody for silent.
  std::vector<Ended> next_round(unsigned int rounds);

 private:
  struct Server {
    std::string mark;
    unsigned int silent_rounds = 0;
    std::size_t open = 0;  // its entries in handles_
  };
  using Servers = std::map<std::string, Server, std::less<>>;

  bool make_room();
  Handles take_handles(const std::string& server);

  std::mutex lock_;  // guards what follows; a leaf
  Servers servers_;
  std::unordered_map<unsigned int, std::string> handles_;
  std::atomic<std::size_t> handle_count_{0};  // of handles_, read without the lock
};

}  // namespace portsvc
