// Redis and NATS, each over its text protocol and one connection a thread. Their servers keep
// nothing on disk.
#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <initializer_list>
#include <stdexcept>
#include <string_view>

#include "bench/contender.h"

namespace portsvc::bench {
namespace {

const std::string request_text(100, 'x');
const std::string last_text(100, 'q');

bool is_last(const std::string& text) { return text == last_text; }

/// A connection for lines and counted bytes.
class Connection {
 public:
  explicit Connection(int port) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int on = 1;
    ::setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const timeval limit{2 * wait_limit, 0};
    ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    connected_ =
        ::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  ~Connection() { ::close(socket_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool connected() const { return connected_; }

  void send(std::string_view text) const {
    while (!text.empty()) {
      const ssize_t sent = ::send(socket_, text.data(), text.size(), MSG_NOSIGNAL);
      if (sent <= 0) throw std::runtime_error("a connection takes nothing");
      text.remove_prefix(static_cast<std::size_t>(sent));
    }
  }

  /// Without its end.
  std::string line() {
    std::size_t end = 0;
    while ((end = buffer_.find("\r\n", begin_)) == std::string::npos) receive();
    std::string text = buffer_.substr(begin_, end - begin_);
    begin_ = end + 2;
    return text;
  }

  /// `count` bytes, and the end of their line.
  std::string bytes(std::size_t count) {
    while (buffer_.size() - begin_ < count + 2) receive();
    std::string text = buffer_.substr(begin_, count);
    begin_ += count + 2;
    return text;
  }

 private:
  void receive() {
    static thread_local std::array<char, 256U << 10> chunk;
    const ssize_t size = ::recv(socket_, chunk.data(), chunk.size(), 0);
    if (size <= 0) throw std::runtime_error("a connection gives nothing");
    buffer_.erase(0, begin_);
    begin_ = 0;
    buffer_.append(chunk.data(), static_cast<std::size_t>(size));
  }

  const int socket_;
  bool connected_ = false;
  std::string buffer_;
  std::size_t begin_ = 0;  // of what has not been read
};

long number(std::string_view text) {
  long value = 0;
  if (std::from_chars(text.data(), text.data() + text.size(), value).ec != std::errc()) {
    throw std::runtime_error(fmt::format("not a number: {}", text));
  }
  return value;
}

using Connections = std::vector<std::unique_ptr<Connection>>;

/// A server that is there as soon as it takes connections.
class TextSide : public Side {
 public:
  std::vector<const Process*> processes() const override { return {&process_}; }

 protected:
  TextSide(const Bench& bench, const std::string& name, int port,
           const std::vector<std::string>& command)
      : port_(port), process_(command, bench.folder.path(name)) {
    wait_until(
        [&] {
          require_alive(process_);
          return Connection(port_).connected();
        },
        std::chrono::seconds(20), name + " starts");
  }

  Connections connect(unsigned int count) const {
    Connections all;
    while (all.size() < count) all.push_back(std::make_unique<Connection>(port_));
    return all;
  }

  // By number, anew for each begin_...().
  Connections owners_;
  Connections clients_;

 private:
  const int port_;
  const Process process_;
};

/// Requests are pushed on a list that their owner pops with BLPOP, replies on one for each client,
/// which a request names in its first word.
class RedisSide : public TextSide {
 public:
  RedisSide(const Bench& bench, int port)
      : TextSide(bench, "redis", port,
                 {"redis-server", "--port", std::to_string(port), "--bind", "127.0.0.1", "--save",
                  "", "--appendonly", "no", "--dir", bench.folder.path()}) {}

  void begin_requests(unsigned int owners, unsigned int clients, Taking) override {
    owners_ = connect(owners);
    clients_ = connect(clients);
  }

  void request(unsigned int client, bool last) override {
    const std::string port = fmt::format("port{}", client % owners_.size());
    const std::string reply = fmt::format("reply{}", client);
    call(*clients_[client],
         {"RPUSH", port, fmt::format("{} {}", reply, last ? last_text : request_text)});
    pop(*clients_[client], reply);
  }

  bool serve(unsigned int owner) override {
    const std::string request = pop(*owners_[owner], fmt::format("port{}", owner));
    const std::size_t space = request.find(' ');
    const std::string data = request.substr(space + 1);
    call(*owners_[owner], {"RPUSH", request.substr(0, space), data});
    return is_last(data);
  }

  void begin_events(std::size_t size, unsigned int producers, std::size_t) override {
    event_.assign(size, 'x');
    owners_ = connect(1);
    clients_ = connect(producers);
    call(*owners_[0], {"DEL", "events"});
  }

  void produce(unsigned int producer) override {
    call(*clients_[producer], {"RPUSH", "events", event_});
  }

  void await_event() override { pop(*owners_[0], "events"); }

  std::size_t consume(std::size_t batch) override {
    return call(*owners_[0], {"LPOP", "events", std::to_string(batch)}).size();
  }

 private:
  using Values = std::vector<std::string>;

  static Values call(Connection& connection, std::initializer_list<std::string_view> words) {
    std::string text = fmt::format("*{}\r\n", words.size());
    for (const std::string_view word : words) {
      text += fmt::format("${}\r\n", word.size());
      text += word;
      text += "\r\n";
    }
    connection.send(text);
    Values values;
    read(connection, values);
    return values;
  }

  static std::string pop(Connection& connection, const std::string& list) {
    Values values = call(connection, {"BLPOP", list, std::to_string(wait_limit)});
    if (values.size() != 2) throw std::runtime_error("Redis: nothing came");
    return std::move(values[1]);
  }

  /// The values of a reply; none when it says that there are none.
  static void read(Connection& connection, Values& values) {
    const std::string line = connection.line();
    const std::string_view rest = std::string_view(line).substr(1);
    switch (line[0]) {
      case '*':
        for (long left = number(rest); left > 0; --left) read(connection, values);
        break;
      case '$':
        if (const long size = number(rest); size >= 0) {
          values.push_back(connection.bytes(static_cast<std::size_t>(size)));
        }
        break;
      case '-':
        throw std::runtime_error("Redis: " + line);
      default:
        values.emplace_back(rest);
    }
  }

  std::string event_;
};

/// Requests are published on a subject of their owner, replies on one of their client.
class NatsSide : public TextSide {
 public:
  NatsSide(const Bench& bench, int port)
      : TextSide(bench, "nats", port,
                 {"nats-server", "-a", "127.0.0.1", "-p", std::to_string(port)}) {}

  void begin_requests(unsigned int owners, unsigned int clients, Taking) override {
    owners_ = connect(owners);
    clients_ = connect(clients);
    for (unsigned int i = 0; i < owners; ++i) subscribe(*owners_[i], fmt::format("port{}", i));
    for (unsigned int i = 0; i < clients; ++i) subscribe(*clients_[i], fmt::format("reply{}", i));
  }

  void request(unsigned int client, bool last) override {
    const std::string subjects = fmt::format("port{} reply{}", client % owners_.size(), client);
    publish(*clients_[client], subjects, last ? last_text : request_text);
    take(*clients_[client]);
  }

  bool serve(unsigned int owner) override {
    const auto [subject, data] = take(*owners_[owner]);
    publish(*owners_[owner], subject, data);
    return is_last(data);
  }

  void begin_events(std::size_t size, unsigned int producers, std::size_t) override {
    event_.assign(size, 'x');
    owners_ = connect(1);
    clients_ = connect(producers);
    subscribe(*owners_[0], "events");
    for (const auto& producer : clients_) greet(*producer);
  }

  void produce(unsigned int producer) override { publish(*clients_[producer], "events", event_); }

  void await_event() override { take(*owners_[0]); }

  std::size_t consume(std::size_t) override {
    throw std::logic_error("NATS keeps nothing until it is asked for");
  }

 private:
  static void greet(Connection& connection) {
    connection.send("CONNECT {\"verbose\":false}\r\nPING\r\n");
    while (connection.line() != "PONG") {
    }
  }

  static void subscribe(Connection& connection, const std::string& subject) {
    connection.send(fmt::format("SUB {} 1\r\n", subject));
    greet(connection);
  }

  static void publish(Connection& connection, const std::string& subjects,
                      const std::string& data) {
    connection.send(fmt::format("PUB {} {}\r\n{}\r\n", subjects, data.size(), data));
  }

  /// The next message: where it wants its reply (its own subject when nowhere), and its data.
  static std::pair<std::string, std::string> take(Connection& connection) {
    for (;;) {
      const std::string line = connection.line();
      if (line.rfind("MSG ", 0) == 0) {  // MSG subject id [reply-to] size
        const std::size_t size_at = line.rfind(' ') + 1;
        const std::size_t reply_at = line.rfind(' ', size_at - 2) + 1;
        return {line.substr(reply_at, size_at - 1 - reply_at),
                connection.bytes(static_cast<std::size_t>(number(line.c_str() + size_at)))};
      }
      if (line == "PING") connection.send("PONG\r\n");
      if (line[0] == '-') throw std::runtime_error("NATS: " + line);
    }
  }

  std::string event_;
};

template <class Kind>
Contender start(const Bench& bench, const char* name, const char* program) {
  Contender contender{name, {}};
  if (is_installed(program)) {
    contender.sides.push_back(std::make_unique<Kind>(bench, free_port()));
  }
  return contender;
}

}  // namespace

Contender start_redis(const Bench& bench) { return start<RedisSide>(bench, redis, "redis-server"); }

Contender start_nats(const Bench& bench) { return start<NatsSide>(bench, nats, "nats-server"); }

}  // namespace portsvc::bench
