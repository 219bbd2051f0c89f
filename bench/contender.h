// What port_bench sets side by side: the service, the waking servant, Redis and NATS, all spoken to
// in the same few ways.
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

/// One server, or a main server and its sub server. Owners, clients and producers are numbered from
/// 0; each call for a number comes from one thread at a time, those for different numbers at once.
/// A side is asked only for what its section measures.
class Side {
 public:
  virtual ~Side() = default;

  virtual std::vector<const Process*> processes() const = 0;

  /// Prepares for small requests from clients, client c to the port of owner c % `owners`.
  virtual void begin_requests(unsigned int, unsigned int /*clients*/) { not_measured(); }
  /// A client sends a request and waits for the reply.
  virtual void request(unsigned int, bool /*last*/) { not_measured(); }
  /// An owner waits for a request and replies; true when it was its client's last.
  virtual bool serve(unsigned int) { not_measured(); }

  /// Prepares for events of this size, from so many producers, of which at most `pending` wait to
  /// be taken at a time. There is none left of earlier ones.
  virtual void begin_events(std::size_t size, unsigned int producers, std::size_t pending) = 0;
  virtual void produce(unsigned int producer) = 0;
  /// Waits for an event and takes it.
  virtual void await_event() { not_measured(); }
  /// Takes up to `batch` events without waiting; how many there were.
  virtual std::size_t consume(std::size_t) { not_measured(); }

 private:
  [[noreturn]] static void not_measured();
};

// Names in the table.
constexpr const char* waking_servant = "condition variable";
constexpr const char* nats = "NATS";

/// All that one name in the table stands for: several processes that do the same differ by where
/// their memory happens to lie, so some contenders are three.
struct Contender {
  std::string name;
  std::vector<std::unique_ptr<Side>> sides;
};
using Contenders = std::vector<Contender>;

/// The service and the waking servant.
Contenders start_both(const Bench& bench);
/// The service with its owner on the main server, its client on a sub server.
Contender start_proxy(const Bench& bench);
// Not added when it is not installed.
void add_redis(const Bench& bench, Contenders& contenders);
void add_nats(const Bench& bench, Contenders& contenders);

/// Figures of each contender, each the median of its slices, which alternate.
std::vector<std::vector<double>> compare(
    const Contenders& contenders, unsigned int rounds,
    const std::function<std::vector<double>(Side& side)>& measure);

/// All processes of all of them.
std::vector<const Process*> processes_of(const Contenders& contenders);

/// Measures with all of them pinned to one processor, then free to move. `measure` takes a row to
/// begin with.
template <class Measure>
void pinned_and_free(const Contenders& contenders, Measure&& measure) {
  {
    const Pinned pinned(processes_of(contenders));
    Row row;
    row.processors = Pinned::processors;
    measure(row);
  }
  measure(Row());
}

}  // namespace portsvc::bench
