// A server as the library sees it: its reference, the calls to it, and which of its lives it is in.
// For this folder and for stubs.cpp only.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "middleware/directory.h"
#include "middleware/orb/orb.h"
#include "portsvc/client.h"

namespace portsvc::client::detail {

using Varo::DT_PORT_SVC::Port_Factory;
using Varo::DT_PORT_SVC::Port_Factory_ptr;
using Varo::DT_PORT_SVC::Port_Factory_var;

/// What a call in a life that has ended is answered with inside the library: nothing has been sent.
constexpr Result stale{0x505301FF};
/// The same for callers.
inline Result for_callers(Result result) {
  return result == stale ? Result(failure::lost) : result;
}

/// What one call waits in the server. A longer wait is made of such calls, so that it can be
/// cancelled and notices a server that has gone.
constexpr std::chrono::seconds slice(1);

/// The code for a failed call.
Result result_of(const CORBA::Exception& exception);
/// The last failure of this thread, as the broker has told it.
orb::Failing last_failing();
const std::string& last_words();

/// Lets a sequence show the bytes where they lie.
void show(Varo::DATA_BUFFER& data, Bytes bytes);
/// Whether they can be sent at all.
inline bool fits_wire(Bytes bytes) { return bytes.size() <= 0xFFFFFFFFU; }
/// Takes the octets out of a sequence.
Payload payload_of(const Varo::DATA_BUFFER& data);

/// The lives of the server at one address, for all Connections of the process to it.
///
/// A restarted server gives the handles that it gave before to others, so a handle is good for the
/// life it was given in. Calls therefore go over connections that are open already, which lead to
/// the server that was there before. Another is opened here. Where none was open it leads to
/// another life; where others are, and are busy, to the same, unless one of them turns out to be
/// broken. One connection is kept from idling, lest an idle process takes its server for another.
class Lives {
 public:
  /// The lives at `address`, one object for each.
  static std::shared_ptr<Lives> at(const std::string& address, Port_Factory_ptr server);

  explicit Lives(Port_Factory_ptr server);
  ~Lives();
  Lives(const Lives&) = delete;
  Lives& operator=(const Lives&) = delete;

  /// The number of the life, never used twice in a process.
  std::uint64_t number() const { return number_.load(); }

  /// Calls over an open connection, opening another first if need be. With `life` only if that is
  /// still the life; otherwise the answer is `stale`. `bytes`: about how large the request is.
  Result call(Port_Factory_ptr server, std::chrono::milliseconds limit,
              std::optional<std::uint64_t> life, std::size_t bytes,
              const std::function<unsigned int(Port_Factory_ptr)>& call);

 private:
  class Under_Way;

  Result open(Port_Factory_ptr server, std::chrono::milliseconds limit);
  /// A call that does nothing and waits for nothing. `refused`: no connection was free; null: opens
  /// another then.
  Result probe(Port_Factory_ptr server, std::chrono::milliseconds limit, bool* refused);
  /// Unless somebody else has seen to it since it was `number`.
  bool begin_another(std::uint64_t number);
  void keep_open();

  static std::atomic<std::uint64_t> last_number_;
  std::atomic<std::uint64_t> number_{++last_number_};
  std::atomic<std::uint64_t> begun_{0};   // calls and probes
  std::atomic<int> under_way_{0};         // of those
  std::atomic<std::uint64_t> broken_{0};  // that have lost their connection

  const Port_Factory_var server_;
  std::mutex lock_;  // guards ending_
  std::condition_variable end_;
  bool ending_ = false;
  std::thread beats_;
};

/// The directory of the options, null when they name none; throws Error.
std::shared_ptr<Directory> directory_for(const orb::Broker& broker, const Options& options);
/// The broker of the process: the one that serves, or else one for all Connections.
std::shared_ptr<orb::Broker> broker_for(const Options& options);

/// One server for one Connection and what is made with it. Any thread.
class Link {
 public:
  Link(const std::string& server, const Options& options);

  const std::string& server() const { return server_; }
  const Options& options() const { return options_; }

  /// Whether somebody has cancelled the object, or one of those, that wait; wake() has it asked.
  using Ended = std::function<bool()>;

  using Call = std::function<unsigned int(Port_Factory_ptr)>;
  /// A call that does not wait in the server. A server that is not known (any more) is looked up
  /// first. `bytes`: about how large the request is.
  Result call(const Call& call, std::size_t bytes = 0) {
    return run({}, options_.call_timeout, bytes, call);
  }
  /// A call with a handle of `life`, or `stale`. It may wait for `wait` in the server.
  Result call_in(std::uint64_t life, std::chrono::seconds wait, const Call& call,
                 std::size_t bytes = 0) {
    return run(life, wait + options_.call_timeout, bytes, call);
  }
  /// A call of a destructor, by which the server is told of an end: the request is under way
  /// whether or not an answer comes, so that is not waited for long. Throws nothing.
  Result say_farewell(std::optional<std::uint64_t> life, const Call& call) noexcept;
  /// The life that calls would go to now; 0 when there is no server.
  std::uint64_t life();
  /// The reference that calls would go to; throws Error.
  Port_Factory_var reference();
  /// As Connection::explain().
  std::string explain(Result failed);
  /// Throws Error, with what can be found out about it, unless it is a success.
  void check(const std::string& what, Result result);

  /// Ends all pauses of this link; wake() has their conditions looked at.
  void cancel();
  bool cancelled() const { return cancelled_.load(); }
  void wake();
  /// Pauses; false at once when `ended` or the link is cancelled.
  bool pause(std::chrono::milliseconds time, const Ended& ended);

 private:
  struct Target {
    Port_Factory_var server;
    std::shared_ptr<Lives> lives;
  };
  Result run(std::optional<std::uint64_t> life, std::chrono::milliseconds limit, std::size_t bytes,
             const Call& call);
  Result target(Target& target);
  Result look_up(CORBA::Object_var& object);
  void forget();

  const std::string server_;
  const Options options_;
  const std::shared_ptr<orb::Broker> broker_;
  std::shared_ptr<Directory> directory_;

  std::mutex lock_;  // guards what follows; nothing is called under it
  std::condition_variable changed_;
  Target target_;
  Port_Factory_var latest_;  // of target_, also when that has been forgotten
  std::atomic<bool> cancelled_{false};
};

/// The progress of one wait: how much of its time-out is left, and the pauses between tries at a
/// server that is away.
class Wait {
 public:
  Wait(Link& link, Link::Ended ended, Timeout timeout);

  bool cancelled() const { return ended_() || link_.cancelled(); }
  /// True when the time is used up. The server counts whole seconds and ends a little late: a rest
  /// this short is no slice more.
  bool over() const;
  /// What is left, in whole seconds, at least one; at most `most`.
  std::chrono::seconds left(std::chrono::seconds most) const;
  /// After a failure at a server that may come back: pauses, longer each time, and answers true;
  /// false when the failure is final, because of its kind, the options or the time. What may have
  /// been carried out is tried again only if it is `repeatable`.
  bool goes_on_after(Result failure, bool repeatable);
  /// A call has got through.
  void got_through();

 private:
  static constexpr std::chrono::milliseconds shortest{250};
  static constexpr std::chrono::milliseconds longest{30000};

  Link& link_;
  const Link::Ended ended_;
  const std::optional<std::chrono::steady_clock::time_point> end_;
  std::chrono::milliseconds pause_{shortest};
  bool lost_ = false;  // on_lost has been told
};

}  // namespace portsvc::client::detail
