// A store of events as port_bench compares them: producers put events in, one consumer takes them
// out.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "bench/servers.h"

namespace portsvc::bench {

class EventStore {
 public:
  virtual ~EventStore() = default;

  virtual std::string name() const = 0;
  virtual const Child& process() const = 0;
  /// Prepares for events of this size, from so many producers, of which at most `pending` wait to
  /// be taken at a time. The store is empty.
  virtual void begin(std::size_t size, unsigned int producers, std::size_t pending) = 0;
  /// Puts one event in. Producers, numbered from 0, call it at the same time, each from its own
  /// thread.
  virtual void produce(unsigned int producer) = 0;
  /// Takes up to `batch` events, without waiting; how many there were. A store that hands events to
  /// the consumer by itself answers how many have come since the last call.
  virtual std::size_t consume(std::size_t batch) = 0;
};

/// A store that stands beside the port service, in a process of its own; null when it is not
/// installed.
std::unique_ptr<EventStore> start_redis(const Bench& bench);
std::unique_ptr<EventStore> start_event_channel(const Bench& bench);

}  // namespace portsvc::bench
