// The client library of the port service: packets, replies and events from C++ programs.
//
//     portsvc::client::Connection plant("10.0.0.1:9700");
//     portsvc::client::Client orders(plant, "orders");
//     portsvc::client::Payload reply;
//     const auto result = orders.ask("three of them", reply, std::chrono::seconds(10));
//     if (!result) std::cerr << result.text() << "\n";
//
// This header needs no header of the broker. Link with PortService::client.
//
// Errors. Operations answer a Result and throw nothing but std::bad_alloc. Constructors throw
// Error: an object that exists has been connected. Connection::explain() says what can be found out
// about a failure.
//
// Time-outs are whole seconds, as the service counts them; one may end up to a second late. 0s
// means "do not wait" and `forever` "no limit", for every kind of port. A call that does not wait
// in the server ends within Options::call_timeout, a wait within its own time-out plus that.
//
// When the server is lost and comes back. While Options::reconnect is on, a wait (the operations
// that take a Timeout) goes on at the server that has come back, for as long as its time-out lasts:
// owners own their port again, also under its new id, clients connect anew, subscriptions are made
// anew. What may have been carried out already is not done a second time but answered with
// failure::lost. A handle that the server gave in an earlier life is never used in a later one. A
// port that is gone counts as one that may come back: a wait at it ends with its time-out. All
// other operations fail at once with failure::unreachable, and work again when the server does.
//
// Threads. Every operation may be called from any thread, and any number of threads at a time may
// wait at one Owner, Box or Subscription; each waiting thread uses a connection to the server. A
// Client carries one exchange at a time: give each thread its own. Destroy an object when no thread
// is in it any more.
//
// Cancellation. cancel() may be called from any thread. It ends the waits of its object, or, at a
// Connection, of everything made with that, with failure::cancelled, within a second: a wait is
// made of calls of a second each. (When the server has stopped answering it takes
// Options::call_timeout more.) That of an Owner, a Box or a Subscription asks the server to end the
// take, and waits for that: once it has returned, nothing is taken for nobody. The object stays
// cancelled; it can be used for what does not wait, and destroyed.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "idl/port_codes.h"

namespace portsvc::client {

/// What the library answers beside the codes of the service (portsvc::result) and of servers that
/// refuse a call (portsvc::refusal). All of them are one number space.
namespace failure {
/// The server cannot be reached; nothing has been carried out.
constexpr unsigned int unreachable = 0x50530101;
/// The server was lost, restarted, or did not answer in time: the call may have been carried out.
constexpr unsigned int lost = 0x50530102;
/// A message is larger than the largest message of this side or of the server. A request has not
/// been carried out; an answer that was too large, with the packets or events in it, is lost.
constexpr unsigned int too_large = 0x50530103;
/// cancel() has been called.
constexpr unsigned int cancelled = 0x50530104;
/// The address is no HOST:PORT and no reference, or it is a name and there is no directory.
constexpr unsigned int bad_address = 0x50530105;
/// What answers at the address is no port service.
constexpr unsigned int no_service = 0x50530106;
/// Any other failure of the broker.
constexpr unsigned int broker = 0x50530107;
/// The directory does not list the name.
constexpr unsigned int not_listed = 0x50530108;
/// The broker cannot start with these options, for example because of the files of TLS.
constexpr unsigned int bad_options = 0x50530109;
}  // namespace failure

/// How an operation has ended: a code, which has a name.
class [[nodiscard]] Result {
 public:
  constexpr Result() = default;  ///< success
  constexpr explicit Result(unsigned int code) : code_(code) {}

  constexpr bool ok() const { return code_ == result::ok; }
  constexpr explicit operator bool() const { return ok(); }

  /// A code of portsvc::result, portsvc::refusal or failure.
  constexpr unsigned int code() const { return code_; }
  /// "send_timed_out"; "unknown" for a code that has no name.
  std::string_view name() const;
  /// "no owner took the packet before the time-out".
  std::string_view meaning() const;
  /// "2017 send_timed_out: no owner took the packet before the time-out".
  std::string text() const;

  /// Whether it may pass by itself: a server that is away or just starting, one that does not have
  /// the port yet.
  bool may_pass() const;

  /// Throws Error unless it is a success; `what` says what was tried, for example "send to orders".
  void check(const std::string& what) const;

  friend constexpr bool operator==(Result a, Result b) { return a.code_ == b.code_; }
  friend constexpr bool operator!=(Result a, Result b) { return a.code_ != b.code_; }
  /// Against the codes: result == result::timed_out.
  friend constexpr bool operator==(Result a, unsigned int code) { return a.code_ == code; }
  friend constexpr bool operator!=(Result a, unsigned int code) { return a.code_ != code; }

 private:
  unsigned int code_ = result::ok;
};

/// What constructors throw. what() is one line for people.
class Error : public std::runtime_error {
 public:
  Error(const std::string& what, Result result);
  Result result() const { return result_; }

 private:
  Result result_;
};

/// A view of bytes that somebody else owns, as string_view is of characters. Payloads are sent from
/// where they lie, without a copy.
class Bytes {
 public:
  constexpr Bytes() = default;
  constexpr Bytes(const void* data, std::size_t size) : data_(data), size_(size) {}
  constexpr Bytes(std::string_view text) : Bytes(text.data(), text.size()) {}  // NOLINT
  Bytes(const std::string& text) : Bytes(text.data(), text.size()) {}          // NOLINT
  Bytes(const char* text) : Bytes(text, std::strlen(text)) {}                  // NOLINT
  Bytes(const std::vector<unsigned char>& bytes)                               // NOLINT
      : Bytes(bytes.data(), bytes.size()) {}

  constexpr const void* data() const { return data_; }
  constexpr std::size_t size() const { return size_; }
  std::string_view text() const { return {static_cast<const char*>(data_), size_}; }

 private:
  const void* data_ = nullptr;
  std::size_t size_ = 0;
};

/// Bytes that have been received. It owns the memory into which the broker has read them.
class Payload {
 public:
  Payload() = default;
  Payload(std::unique_ptr<unsigned char[]> bytes, std::size_t size)
      : bytes_(std::move(bytes)), size_(size) {}

  const unsigned char* data() const { return bytes_.get(); }
  std::size_t size() const { return size_; }
  std::string_view text() const { return {reinterpret_cast<const char*>(data()), size_}; }
  operator Bytes() const { return {data(), size_}; }  // NOLINT

 private:
  std::unique_ptr<unsigned char[]> bytes_;
  std::size_t size_ = 0;
};

/// Who has sent a packet: what an owner answers to. Good while the server and the sender's
/// connection last, also after the Packet has gone.
struct Sender {
  unsigned int handle = 0;  ///< the sender's client handle, as the server numbers it
  std::uint64_t life = 0;   ///< of the server, as the library counts
};

struct Packet {
  Sender from;
  Payload data;
};

/// How long to wait: any chrono duration of whole seconds, or `forever`. A finer one does not
/// compile. More than 136 years count as forever.
class Timeout {
 public:
  template <class Rep, class Period,
            class = std::enable_if_t<
                std::is_convertible_v<std::chrono::duration<Rep, Period>, std::chrono::seconds>>>
  constexpr Timeout(std::chrono::duration<Rep, Period> time)  // NOLINT
      : time_(std::chrono::seconds(time)) {}

  static constexpr Timeout no_limit() { return std::chrono::seconds::max(); }
  constexpr bool is_forever() const {
    return time_.count() > std::numeric_limits<std::uint32_t>::max();
  }
  constexpr std::chrono::seconds seconds() const { return time_; }

 private:
  std::chrono::seconds time_;
};

inline constexpr Timeout forever = Timeout::no_limit();

/// PEM files for servers that are served with TLS; see docs/operations.md.
struct Tls {
  std::string authorities;  ///< the certificates of the authorities that are trusted
  std::string key;          ///< this process's certificate and its private key
};

struct Options {
  /// Largest message sent and taken, in bytes. No smaller than the server's, or what is larger is
  /// lost. (A broker without such a setting reads what memory allows.)
  std::uint64_t max_message = 64ULL << 20;
  /// Of a call that does not wait in the server: connecting, the call and its answer together.
  std::chrono::milliseconds call_timeout = std::chrono::seconds(5);
  /// Whether waits go on when the server is lost and comes back.
  bool reconnect = true;
  Tls tls = {};
  /// Where a server is looked up that is given by its name: a file, or a naming service
  /// ("corbaloc::HOST:2809/NameService"). One of them at most.
  std::string directory = {};
  std::string naming = {};
  /// With either: the realm whose servers are found, empty for all.
  std::string realm = {};
  /// Told, on the thread that waits, when a wait has lost the server and goes on trying, and why;
  /// and when it has found it again. They must not call what they have been told about.
  std::function<void(Result why)> on_lost = {};
  std::function<void()> on_found = {};
  /// The broker's own trace level, on standard error; for finding faults.
  unsigned int trace = 0;
};

/// A server that a directory lists.
struct ListedServer {
  std::string name;
  bool is_main = false;
};

/// The servers of the directory, or the naming service, and the realm of `options`: the main
/// servers first. An empty list is also what is left of a directory that cannot be read. Throws
/// Error.
std::vector<ListedServer> servers(const Options& options);

/// One line on a list that lacks `wanted` ("server 'line7'"): what it holds, or why it does not
/// tell. Throws Error.
std::string not_listed_text(const Options& options, const std::string& wanted);

struct PortInfo {
  unsigned int kind = 0;  ///< PORT_MASTER, PORT_EVENTBOX or PORT_SLAVE
  unsigned int port_id = 0;
  bool owner_connected = false;
  unsigned int owner_access = 0;  ///< of the last owner connection, 0 before any
  unsigned int limit = 0;
};

/// The word that an owner of this library leaves at its port, as the connected host.
struct OwnerWord {
  std::string program;
  std::string host;
  unsigned int process = 0;
  bool ended = false;  ///< it is a process of this host that has ended

  /// "portctl, process 17 of press-7".
  std::string text() const;
};

namespace detail {
class Link;
class Exchange;
class Ownership;
}  // namespace detail

/// A server, and what is done there by name.
///
/// All Connections of a process share one broker, which is started with the first and ended with
/// the last of them and of what was made with them: `max_message` and `tls` must be the same for
/// all; `call_timeout` and `trace` of the first count for what the broker does by itself. In a
/// process that serves ports itself they use the broker that serves, with its settings; it must
/// outlive them. The broker has the process ignore SIGPIPE. It opens as many connections to
/// a server as there are calls at the same time.
///
/// Clients, owners and subscriptions keep what they need: the Connection that they were made with
/// may go before them.
class Connection {
 public:
  /// Connects to `server`: HOST:PORT, [IPv6]:PORT, a corbaloc, corbaname or IOR text, or a name in
  /// the directory of `options`. Throws Error (failure::bad_address, not_listed, unreachable,
  /// no_service), and std::invalid_argument for options that contradict those of another
  /// Connection.
  explicit Connection(const std::string& server, const Options& options = {});
  ~Connection();
  Connection(Connection&&) noexcept;
  Connection& operator=(Connection&&) noexcept;

  /// Whether the server answers.
  Result ping();
  /// One line for people on what has failed, and what to do about it. Of a server that cannot be
  /// reached it looks for the reason, which takes up to two seconds. To be called on the thread
  /// whose call has failed, before its next one.
  std::string explain(Result failed) const;

  // --- ports and boxes

  /// Makes a packet port (PORT_MASTER) or an event box (PORT_EVENTBOX) that keeps `limit` packets
  /// or events; beyond it the oldest is dropped. A main server leaves a port that exists as it is;
  /// a sub server answers already_exists. On a sub server a port served there is a PORT_SLAVE.
  Result create(const std::string& name, unsigned int kind, unsigned int limit);
  /// Deletes a port of any kind with what it holds. Success also when there is none.
  Result remove(const std::string& name);
  Result exists(const std::string& name, bool& found);
  /// no_such_port.
  Result info(const std::string& name, PortInfo& info);
  /// All names, in the order of their creation.
  Result list(std::vector<std::string>& ports, std::vector<std::string>& boxes);
  /// Disconnects the owner of a port, whoever it is: for one whose process has died. not_connected.
  Result release(const std::string& name);
  /// The connected hosts, by port; a port without such a text is left out.
  Result hosts(std::map<std::string, std::string>& hosts);
  /// Sets it; an empty text takes it away. It goes when the owner leaves. unknown_name.
  Result set_host(const std::string& name, const std::string& host);
  /// The word at a port; nothing when there is none, or another text. It may be of an owner that
  /// has left without disconnecting.
  Result owner_word(const std::string& name, std::optional<OwnerWord>& word);

  // --- events

  /// Puts an event into one box. unknown_name; a packet port drops it.
  Result put(const std::string& box, Bytes event);
  /// Puts events into every box of the server that is subscribed to `code`, several in a row with
  /// no other between them. no_subscriptions, not_subscribed.
  Result declare(unsigned int code, Bytes event);
  Result declare(unsigned int code, const std::vector<Bytes>& events);
  /// Subscribes a box, which need not exist yet. already_subscribed. It ends when the box is
  /// deleted; see Subscription for one that ends by itself.
  Result subscribe(const std::string& box, unsigned int code);
  /// How many events a box holds; 0 for packet ports. unknown_handle.
  Result count(const std::string& box, unsigned int& events);
  /// Drops the events of a box. unknown_handle.
  Result clear(const std::string& box);
  /// Whether a box stays when nobody has read it for 120 seconds. unknown_name.
  Result set_persistent(const std::string& box, bool persistent);

  /// Has the server write its snapshot. snapshot_not_writable.
  Result save_snapshot();
  /// The same, and reads it into `bytes`. `progress`, if there is one, is told how many bytes of
  /// how many are here; false ends the transfer with failure::cancelled.
  Result download_snapshot(
      std::string& bytes,
      const std::function<bool(std::uint64_t here, std::uint64_t all)>& progress = {});

  void cancel();

 private:
  friend class Client;
  friend class Owner;
  friend class Box;
  friend class Subscription;
  friend const std::shared_ptr<detail::Link>& link_of(const Connection&);

  std::shared_ptr<detail::Link> link_;
};

/// What a client or an owner does when there is nothing for it.
enum class Access : unsigned int {
  /// Waits. A port admits a client's packet when its owner takes: one packet for each take.
  wait = ACCESS_WAIT,
  /// Can be selected (below). A client looks once, for 10 ms, and answers owner_not_taking or
  /// nothing_arrived. A port whose owner selects on it admits packets at once, up to its limit;
  /// then
  /// it drops the oldest.
  select = ACCESS_SELECT,
};

/// A client of a packet port, until the destructor. One exchange at a time; one thread at a time,
/// but for cancel().
class Client {
 public:
  /// Connects. Throws Error: unknown_name; access_refused for an event box, which has no clients
  /// (Connection::put).
  Client(Connection& connection, const std::string& port, Access access = Access::wait);
  /// Disconnects. Waits a few seconds at most for a server that does not answer.
  ~Client();
  Client(Client&&) noexcept;
  Client& operator=(Client&&) noexcept;

  /// Sends a packet: waits until the owner takes. A time-out of 0s is taken for one second, unless
  /// the access is Access::select, which never waits. Success says that the packet is queued.
  /// send_timed_out: nothing is queued.
  Result send(Bytes packet, Timeout timeout);
  /// Takes the oldest reply to this client. 0s is taken for a second. reply_timed_out;
  /// failure::lost when the server to which it was sent has gone, with the exchange.
  /// Of a proxy (a port of the main server, reached through a sub server) a wait that ends without
  /// the reply ends the exchange, so this is one call: cancelled, it leaves a thread and a
  /// connection behind until its time-out. There `forever` is an hour.
  Result wait_reply(Payload& reply, Timeout timeout);
  /// Both; the time-out is for the two together. It never takes the reply to an earlier packet: one
  /// that is still due, for example after a time-out, is given up.
  Result ask(Bytes packet, Payload& reply, Timeout timeout);

  void cancel();
  const std::string& port() const;

 private:
  friend Result select(const std::vector<Client*>&, Client*&, Timeout);
  std::unique_ptr<detail::Exchange> impl_;
};

struct OwnerOptions {
  Access access = Access::wait;
  /// Makes the port or box first when the (main) server has none, with this limit, also when it has
  /// come back without it; 0: does not.
  unsigned int create = 0;
  /// A port stays owned when its owner's process dies. Owners of this library and of portctl leave
  /// a word at the port (its connected host, unless there is a text already): this takes the port
  /// over from one of the same host whose process has ended.
  bool take_over = false;
  /// Takes it over from anybody, after so long.
  std::optional<std::chrono::seconds> take_over_after = {};
  /// Told in one line from whom the port has been taken over.
  std::function<void(const std::string& from)> on_take_over = {};
};

/// The owner of a packet port, until the destructor.
class Owner {
 public:
  /// Connects. Throws Error: unknown_name, owner_exists; access_refused for an event box (Box).
  Owner(Connection& connection, const std::string& port, const OwnerOptions& options = {});
  /// Disconnects; what is queued stays for the next owner. Waits a few seconds at most.
  ~Owner();
  Owner(Owner&&) noexcept;
  Owner& operator=(Owner&&) noexcept;

  /// Takes the oldest packet. 0s is taken for a second. timed_out; not_connected: somebody has
  /// released the port. Between two of its calls a wait is for a moment none: a client that does
  /// not wait may then meet owner_not_taking.
  Result receive(Packet& packet, Timeout timeout = forever);
  /// Answers a client; waits for nothing. unknown_handle: it has disconnected. failure::lost: it
  /// was a client of a server that has gone. A port keeps 32 replies.
  Result reply(const Sender& to, Bytes data);

  void cancel();
  const std::string& port() const;
  unsigned int port_id() const;

 private:
  friend Result select(const std::vector<Owner*>&, Owner*&, Timeout);
  std::unique_ptr<detail::Ownership> impl_;
};

/// The owner of an event box, until the destructor.
class Box {
 public:
  /// Connects. Throws Error: unknown_name, owner_exists; access_refused for a packet port.
  /// OwnerOptions::access is not used.
  Box(Connection& connection, const std::string& box, const OwnerOptions& options = {});
  ~Box();
  Box(Box&&) noexcept;
  Box& operator=(Box&&) noexcept;

  /// Takes the oldest event. timed_out; not_connected: somebody has released the box.
  Result take(Payload& event, Timeout timeout = forever);
  /// Takes up to `most` events in order, at least one. Together they must fit the largest message.
  Result take(std::vector<Payload>& events, unsigned int most, Timeout timeout = forever);

  void cancel();
  const std::string& name() const;

 private:
  friend Result take(const std::vector<Box*>&, Box*&, std::vector<Payload>&, unsigned int, Timeout);
  std::unique_ptr<detail::Ownership> impl_;
};

/// Takes up to `most` events, in order, from the first of the boxes that has any; `from` is that
/// box. All of one Connection. The service has no wait for several boxes: they are looked at every
/// 50 ms. timed_out, not_connected.
Result take(const std::vector<Box*>& boxes, Box*& from, std::vector<Payload>& events,
            unsigned int most, Timeout timeout = forever);

/// A box of its own, subscribed to event codes, until the destructor deletes it. Events that are
/// declared at the server while it lives are taken in order.
///
/// The box is not persistent: when the process dies the server deletes it within about four
/// minutes. So it does when nobody has taken, or tried to, for two minutes. What was declared
/// between the end of a box and the next take is missing: gaps() counts.
class Subscription {
 public:
  /// `limit` is how many events wait to be taken; beyond it the oldest is dropped without a word.
  /// Throws Error.
  Subscription(Connection& connection, const std::vector<unsigned int>& codes,
               unsigned int limit = 1000);
  ~Subscription();
  Subscription(Subscription&&) noexcept;
  Subscription& operator=(Subscription&&) noexcept;

  /// As Box.
  Result take(Payload& event, Timeout timeout = forever);
  Result take(std::vector<Payload>& events, unsigned int most, Timeout timeout = forever);

  /// How often the box had to be made anew, with what it held lost.
  std::uint64_t gaps() const;

  void cancel();
  const std::string& box() const;

 private:
  std::unique_ptr<detail::Ownership> impl_;
};

/// Waits until one of the owners has a packet; nothing is taken. `ready` is the first in the list
/// that has one, null otherwise. All of one Connection and Access::select. timed_out,
/// access_refused (also for proxies), nothing_selected.
Result select(const std::vector<Owner*>& owners, Owner*& ready, Timeout timeout = forever);
/// Waits until one of the clients has a reply; the same.
Result select(const std::vector<Client*>& clients, Client*& ready, Timeout timeout = forever);

}  // namespace portsvc::client
