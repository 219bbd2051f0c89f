// Redis and NATS, each over its text protocol and one connection a thread. Their servers keep
// nothing on disk.
#include <ace/INET_Addr.h>
#include <ace/SOCK_Connector.h>
#include <fmt/format.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <charconv>
#include <cstdlib>
#include <initializer_list>
#include <stdexcept>
#include <string_view>

#include "bench/contender.h"

namespace portsvc::bench {
namespace {

/// A connection for lines and counted bytes.
class Connection {
 public:
  explicit Connection(int port) {
    const ACE_INET_Addr address(static_cast<u_short>(port), ACE_LOCALHOST);
    connected_ = ACE_SOCK_Connector().connect(stream_, address) == 0;
    int on = 1;
    stream_.set_option(IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    timeval limit{2 * wait_limit, 0};
    stream_.set_option(SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  }
  ~Connection() { stream_.close(); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool connected() const { return connected_; }

  void send(std::string_view text) const {
    if (stream_.send_n(text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      throw std::runtime_error("a connection takes nothing");
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
    const ssize_t size = stream_.recv(chunk.data(), chunk.size());
    if (size <= 0) throw std::runtime_error("a connection gives nothing");
    buffer_.erase(0, begin_);
    begin_ = 0;
    buffer_.append(chunk.data(), static_cast<std::size_t>(size));
  }

  ACE_SOCK_Stream stream_;
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
  TextSide(const Bench& bench, int port, const std::vector<std::string>& command)
      : port_(port), process_(command, bench.folder.path(command[0])) {
    await(
        process_, [&] { return Connection(port_).connected(); }, std::chrono::seconds(20),
        command[0] + " starts");
  }

  Connections connect(unsigned int count) const {
    Connections all;
    while (all.size() < count) all.push_back(std::make_unique<Connection>(port_));
    return all;
  }

  // By number, anew for each begin_...().
  Connections owners_;
  Connections clients_;
  std::string event_;

 private:
  const int port_;
  const Process process_;
};

/// Events are pushed on a list.
class RedisSide : public TextSide {
 public:
  RedisSide(const Bench& bench, int port)
      : TextSide(bench, port,
                 {"redis-server", "--port", std::to_string(port), "--bind", "127.0.0.1", "--save",
                  "", "--appendonly", "no", "--dir", bench.folder.path()}) {}

  void begin_events(std::size_t size, unsigned int producers, std::size_t) override {
    event_.assign(size, 'x');
    owners_ = connect(1);
    clients_ = connect(producers);
    call(*owners_[0], {"DEL", "events"});
  }

  void produce(unsigned int producer) override {
    call(*clients_[producer], {"RPUSH", "events", event_});
  }

  std::size_t consume(std::size_t batch) override {
    return call(*owners_[0], {"LPOP", "events", std::to_string(batch)});
  }

 private:
  /// How many values the reply has; none when it says that there are none.
  static std::size_t call(Connection& connection, std::initializer_list<std::string_view> words) {
    std::string text = fmt::format("*{}\r\n", words.size());
    for (const std::string_view word : words) {
      text += fmt::format("${}\r\n", word.size());
      text += word;
      text += "\r\n";
    }
    connection.send(text);
    return read(connection);
  }

  static std::size_t read(Connection& connection) {
    const std::string line = connection.line();
    const std::string_view rest = std::string_view(line).substr(1);
    if (line[0] == '-') throw std::runtime_error("Redis: " + line);
    if (line[0] != '*' && line[0] != '$') return 1;
    const long size = number(rest);
    std::size_t values = 0;
    if (line[0] == '*') {
      for (long left = size; left > 0; --left) values += read(connection);
    } else if (size >= 0) {
      connection.bytes(static_cast<std::size_t>(size));
      values = 1;
    }
    return values;
  }
};

/// Requests are published on a subject of their owner, replies on one of their client.
class NatsSide : public TextSide {
 public:
  NatsSide(const Bench& bench, int port)
      : TextSide(bench, port, {"nats-server", "-a", "127.0.0.1", "-p", std::to_string(port)}) {}

  void begin_requests(unsigned int owners, unsigned int clients) override {
    owners_ = connect(owners);
    clients_ = connect(clients);
    for (unsigned int i = 0; i < owners; ++i) subscribe(*owners_[i], fmt::format("port{}", i));
    for (unsigned int i = 0; i < clients; ++i) subscribe(*clients_[i], fmt::format("reply{}", i));
  }

  void request(unsigned int client, bool last) override {
    const std::string subjects = fmt::format("port{} reply{}", client % owners_.size(), client);
    publish(*clients_[client], subjects, std::string(small_payload, last ? last_mark : 'x'));
    take(*clients_[client]);
  }

  bool serve(unsigned int owner) override {
    const auto [subject, data] = take(*owners_[owner]);
    publish(*owners_[owner], subject, data);
    return data[0] == last_mark;
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

 private:
  static constexpr char last_mark = 'q';

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
};

template <class Kind>
void add(const Bench& bench, Contenders& contenders, const char* name, const std::string& program) {
  if (std::system(("command -v " + program + " >/dev/null").c_str()) != 0) return;
  contenders.push_back({name, {}});
  contenders.back().sides.push_back(std::make_unique<Kind>(bench, free_port()));
}

}  // namespace

void add_redis(const Bench& bench, Contenders& contenders) {
  add<RedisSide>(bench, contenders, "Redis", "redis-server");
}

void add_nats(const Bench& bench, Contenders& contenders) {
  add<NatsSide>(bench, contenders, nats, "nats-server");
}

}  // namespace portsvc::bench
