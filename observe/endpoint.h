// The HTTP endpoint for those who watch a server. It only reads.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>

#include "observe/observed.h"
#include "observe/other_boards.h"

struct mg_connection;
struct mg_context;

namespace portsvc::observe {

/// Answers GET and HEAD of
///     /            the live board
///     /board.json  what it shows; ?search=TEXT&sort=KEY&limit=N, see Board_Query
///     /metrics     for Prometheus
///     /healthz     200 while the process answers
///     /readyz      200 while the server serves and, a sub server, reaches its main server; else
///     503
/// There is no authentication and no TLS. On a loopback address only requests are answered that
/// were addressed to it: a page from elsewhere cannot come in by a name of its own.
class Endpoint {
 public:
  /// Listens at once, at `address`: HOST:PORT, HOST a numeric address (an IPv6 one in brackets) or
  /// localhost, PORT 0 any free one. Throws std::runtime_error.
  /// `others` are the addresses of other servers' endpoints, by name, for the board.
  Endpoint(const std::string& address, About about, std::map<std::string, std::string> others);
  ~Endpoint();
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;

  /// From now on the server serves, and `observe` tells of it, from any thread.
  void show(std::function<Observed()> observe);
  /// It does no longer: `observe` is not running and is not called again once this returns.
  void hide();

  /// HOST:PORT with the port that is really listened on.
  const std::string& address() const { return address_; }
  bool on_loopback() const { return loopback_; }

 private:
  struct Answer;
  struct Stop {
    void operator()(mg_context* context) const;
  };

  static int on_request(mg_connection* connection);
  Answer answer(mg_connection* connection) const;
  Answer answer_ready(const Observed& observed) const;
  bool addressed_here(mg_connection* connection) const;

  const About about_;
  std::unique_ptr<Other_Boards> others_;
  std::string address_;
  bool loopback_ = false;
  // Guards observe_, and is held (shared) while that runs, which takes locks of the servant but
  // calls nobody.
  mutable std::shared_mutex lock_;
  std::function<Observed()> observe_;
  std::unique_ptr<mg_context, Stop> server_;  // ends first: its threads use the rest
};

}  // namespace portsvc::observe
