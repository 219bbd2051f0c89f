// The smallest servant of the service's interface that keeps what it is given and wakes who waits
// for it: what the broker and a condition variable cost, and nothing else.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "bench/empty_servant.h"
#include "idl/port_codes.h"

namespace portsvc::bench {

/// Ports and their clients are queues; port ids and handles their numbers. Nobody is refused, no
/// sender waits, and a selection watches one port.
class WakingServant : public EmptyServant {
 public:
  CORBA::ULong create_port(const char* name, CORBA::ULong, CORBA::ULong limit) override {
    const std::lock_guard<std::mutex> guard(lock_);
    names_[name] = queues_.size();
    queues_.emplace_back().limit = limit;
    return result::ok;
  }

  CORBA::ULong connect_port(const char* name, CORBA::ULong& handle, CORBA::ULong mode, CORBA::ULong,
                            CORBA::ULong& owner) override {
    const std::lock_guard<std::mutex> guard(lock_);
    handle = static_cast<CORBA::ULong>(names_.at(name));
    owner = 0;
    if (mode == CONNECT_CLIENT) {
      Queue* const port = &queues_[handle];
      handle = static_cast<CORBA::ULong>(queues_.size());
      queues_.emplace_back().port = port;
    }
    return result::ok;
  }

  CORBA::ULong packet_foward(CORBA::ULong handle, const Data& data, CORBA::ULong) override {
    queue(handle).port->push(handle, data);
    return result::ok;
  }

  CORBA::ULong packet_receive(CORBA::ULong id, CORBA::ULong& source, Varo::DATA_BUFFER_out data,
                              CORBA::ULong timeout) override {
    Packet packet;
    const CORBA::ULong code = queue(id).pop(packet, timeout);
    source = packet.source;
    data = packet.data ? packet.data.release() : new Data;
    return code;
  }

  CORBA::ULong packet_replay(CORBA::ULong handle, const Data& data, CORBA::ULong) override {
    queue(handle).push(handle, data);
    return result::ok;
  }

  CORBA::ULong packet_replay_wait(CORBA::ULong handle, Varo::DATA_BUFFER_out data,
                                  CORBA::ULong timeout) override {
    CORBA::ULong source = 0;
    return packet_receive(handle, source, data, timeout);
  }

  CORBA::ULong select_event_port(const Handles& handles, CORBA::ULong& ready,
                                 CORBA::ULong timeout) override {
    if (handles.length() != 1) return result::unknown_handle;
    ready = handles[0];
    Queue& port = queue(ready);
    std::unique_lock<std::mutex> guard(port.lock);
    return port.await(guard, timeout);
  }

  CORBA::ULong send_event(const char* name, const Data& data) override {
    Queue* box = nullptr;
    {
      const std::lock_guard<std::mutex> guard(lock_);
      box = &queues_[names_.at(name)];
    }
    box->push(0, data);
    return result::ok;
  }

  CORBA::ULong packet_receive_n(CORBA::ULong id, Varo::DATA_BUFFER_SEQ_out list, CORBA::ULong count,
                                CORBA::ULong timeout) override {
    list = new Varo::DATA_BUFFER_SEQ;
    std::deque<Packet> taken;
    Queue& box = queue(id);
    {
      std::unique_lock<std::mutex> guard(box.lock);
      if (const CORBA::ULong code = box.await(guard, timeout)) return code;
      for (; taken.size() < count && !box.packets.empty(); box.packets.pop_front()) {
        taken.push_back(std::move(box.packets.front()));
      }
    }
    list->length(static_cast<CORBA::ULong>(taken.size()));
    for (CORBA::ULong i = 0; i < list->length(); ++i) {
      Data& data = *taken[i].data;
      const CORBA::ULong size = data.length();
      (*list)[i].replace(size, size, data.get_buffer(1), 1);
    }
    return result::ok;
  }

 private:
  struct Packet {
    CORBA::ULong source = 0;
    std::unique_ptr<Data> data;
  };

  struct Queue {
    std::mutex lock;  // guards packets
    std::condition_variable changed;
    std::deque<Packet> packets;
    std::size_t limit = 0;  // 0: none
    Queue* port = nullptr;  // a client's

    /// The call's own octets are kept: arguments of remote calls belong to nobody else.
    void push(CORBA::ULong source, const Data& data) {
      const CORBA::ULong size = data.length();
      Packet packet{source,
                    std::make_unique<Data>(size, size, const_cast<Data&>(data).get_buffer(1), 1)};
      Packet dropped;
      {
        const std::lock_guard<std::mutex> guard(lock);
        packets.push_back(std::move(packet));
        if (limit != 0 && packets.size() > limit) {
          dropped = std::move(packets.front());
          packets.pop_front();
        }
      }
      changed.notify_one();
    }

    /// Until there is something.
    CORBA::ULong await(std::unique_lock<std::mutex>& guard, CORBA::ULong timeout) {
      const bool filled = changed.wait_for(guard, std::chrono::seconds(timeout),
                                           [this] { return !packets.empty(); });
      return filled ? result::ok : result::timed_out;
    }

    CORBA::ULong pop(Packet& packet, CORBA::ULong timeout) {
      std::unique_lock<std::mutex> guard(lock);
      if (const CORBA::ULong code = await(guard, timeout)) return code;
      packet = std::move(packets.front());
      packets.pop_front();
      return result::ok;
    }
  };

  Queue& queue(CORBA::ULong number) {
    const std::lock_guard<std::mutex> guard(lock_);
    return queues_.at(number);
  }

  std::mutex lock_;  // guards the two tables, not what is in them
  std::unordered_map<std::string, std::size_t> names_;
  std::deque<Queue> queues_;
};

}  // namespace portsvc::bench
