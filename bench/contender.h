// What port_bench sets side by side: the service with early and with paused waits, the waking
// servant, Redis and NATS, all spoken to in the same few ways.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/servers.h"

namespace portsvc::bench {

/// Seconds after which a wait has failed, and the run with it.
constexpr unsigned int wait_limit = 30;

/// How the owners of ports take packets.
enum class Taking { waiting, selecting };

/// One server, or a main server and its sub server. Owners, clients and producers are numbered from
/// 0; each call for a number comes from one thread at a time, those for different numbers at once.
class Side {
 public:
  virtual ~Side() = default;

  virtual std::vector<const Process*> processes() const = 0;

  /// Prepares for requests of 100 B from clients, client c to the port of owner c % `owners`.
  virtual void begin_requests(unsigned int owners, unsigned int clients, Taking taking) = 0;
  /// A client sends a request and waits for the reply.
  virtual void request(unsigned int client, bool last) = 0;
  /// An owner waits for a request and replies; true when it was its client's last.
  virtual bool serve(unsigned int owner) = 0;

  /// Prepares for events of this size, from so many producers, of which at most `pending` wait to
  /// be taken at a time. There is none left of earlier ones.
  virtual void begin_events(std::size_t size, unsigned int producers, std::size_t pending) = 0;
  virtual void produce(unsigned int producer) = 0;
  /// Waits for an event and takes it.
  virtual void await_event() = 0;
  /// Takes up to `batch` events without waiting; how many there were.
  virtual std::size_t consume(std::size_t batch) = 0;
};

// Names in the table.
constexpr const char* waking_servant = "condition variable";
constexpr const char* redis = "Redis";
constexpr const char* nats = "NATS";

/// All that one name in the table stands for: several processes that do the same differ by where
/// their memory happens to lie, so some contenders are three.
struct Contender {
  std::string name;
  std::vector<std::unique_ptr<Side>> sides;
  bool paused = false;  ///< its waits end at their next test, each 10 ms
};

/// port_server, with the waits that `waits` names (server_waits).
Contender start_product(const Bench& bench, const std::string& waits);
/// Its owners on the main server, its clients on a sub server.
Contender start_proxy(const Bench& bench, const std::string& waits);
Contender start_waking_servant(const Bench& bench);
/// Without a side when it is not installed.
Contender start_redis(const Bench& bench);
Contender start_nats(const Bench& bench);

/// Figures of each contender, each the median of its slices, which alternate.
std::vector<std::vector<double>> compare(
    const std::vector<const Contender*>& contenders, unsigned int rounds,
    const std::function<std::vector<double>(Side& side, const Contender& contender)>& measure);

/// All processes of all of them.
std::vector<const Process*> processes_of(const std::vector<const Contender*>& contenders);

/// Measures with all of them pinned to one processor, then free to move. `measure` takes a row to
/// begin with.
template <class Measure>
void pinned_and_free(const std::vector<const Contender*>& contenders, Measure&& measure) {
  {
    const Pinned pinned(processes_of(contenders));
    Row row;
    row.processors = pinned.processors();
    measure(row);
  }
  measure(Row());
}

}  // namespace portsvc::bench
