#include "client/exchange.h"

#include <future>
#include <thread>
#include <utility>

namespace portsvc::client::detail {
namespace {

// Through a proxy a wait is one call, which may be left behind: not for ever.
constexpr std::chrono::seconds longest_proxied_wait = std::chrono::hours(1);

}  // namespace

Exchange::Exchange(std::shared_ptr<Link> link, std::string port, Access access)
    : link_(std::move(link)), port_(std::move(port)), access_(access) {
  link_->check("connect to " + port_, hold());
}

Exchange::~Exchange() { give_up_handle(); }

void Exchange::cancel() {
  ended_ = true;
  link_->wake();
}

void Exchange::give_up_handle() {
  if (life_ == 0) return;
  (void)link_->say_farewell(life_, [&](Port_Factory_ptr server) {
    return static_cast<unsigned int>(server->disconnect_port(handle_));
  });
  life_ = 0;
}

void Exchange::give_up_replies() {
  if (replies_due_ == 0) return;
  replies_due_ = 0;
  give_up_handle();
}

Result Exchange::hold() {
  if (life_ != 0 && life_ == link_->life()) return Result();
  Varo::DT_PORT_SVC::PORT_INFO info{};
  const Result known = link_->call([&](Port_Factory_ptr server) {
    return static_cast<unsigned int>(server->get_port_info(port_.c_str(), info));
  });
  if (known == result::no_such_port) return Result(result::unknown_name);
  if (!known) return known;
  if (info.kind == PORT_EVENTBOX) return Result(result::access_refused);
  // Whatever life the next call goes to, this one is not later.
  const std::uint64_t life = link_->life();
  CORBA::ULong handle = 0;
  const Result connected = link_->call([&](Port_Factory_ptr server) {
    CORBA::ULong owner = 0;
    return static_cast<unsigned int>(server->connect_port(
        port_.c_str(), handle, CONNECT_CLIENT, static_cast<unsigned int>(access_), owner));
  });
  if (!connected) return connected;
  handle_ = handle;
  life_ = life;
  port_id_ = info.port_id;
  through_proxy_ = info.kind == PORT_SLAVE;
  replies_due_ = 0;
  return Result();
}

// A client that does not wait is answered unknown_handle also where there is no owner.
bool Exchange::port_is_the_same() {
  if (access_ == Access::wait) return false;
  Varo::DT_PORT_SVC::PORT_INFO info{};
  const Result known = link_->call([&](Port_Factory_ptr server) {
    return static_cast<unsigned int>(server->get_port_info(port_.c_str(), info));
  });
  return known && info.port_id == port_id_;
}

Result Exchange::send(Bytes packet, Wait& wait) {
  if (!fits_wire(packet)) return Result(failure::too_large);
  Varo::DATA_BUFFER data;
  show(data, packet);
  for (bool again = false;;) {
    if (wait.cancelled()) return Result(failure::cancelled);
    Result result = hold();
    if (result) {
      // A send whose time-out ran out has put nothing into the port, so it can be repeated.
      result = link_->call_in(
          life_, slice,
          [&](Port_Factory_ptr server) {
            return static_cast<unsigned int>(
                server->packet_foward(handle_, data, static_cast<CORBA::ULong>(slice.count())));
          },
          packet.size());
      if (result) {
        wait.got_through();
        ++replies_due_;
        return result;
      }
      if (result == result::send_timed_out) {
        if (wait.over()) return result;
        wait.got_through();
        continue;
      }
      if (result == result::unknown_handle) {
        if (port_is_the_same()) return result;
        life_ = 0;
      }
      if (link_->options().reconnect) {
        if (result == stale) continue;
        if (result == result::unknown_handle && !std::exchange(again, true)) continue;
      }
    }
    if (!wait.goes_on_after(result, false)) {
      return wait.cancelled() ? Result(failure::cancelled) : for_callers(result);
    }
  }
}

Result Exchange::wait_reply(Payload& reply, Wait& wait) {
  if (life_ == 0) return Result(failure::lost);
  for (;;) {
    if (wait.cancelled()) return Result(failure::cancelled);
    const Result result =
        through_proxy_ ? wait_through_proxy(reply, wait)
                       : link_->call_in(life_, slice, [&](Port_Factory_ptr server) {
                           Varo::DATA_BUFFER_var data;
                           const unsigned int code = server->packet_replay_wait(
                               handle_, data.out(), static_cast<CORBA::ULong>(slice.count()));
                           if (code == result::ok) reply = payload_of(data.in());
                           return code;
                         });
    if (result) {
      wait.got_through();
      if (replies_due_ != 0) --replies_due_;
      return result;
    }
    if (result == result::reply_timed_out && !through_proxy_ && !wait.over()) {
      wait.got_through();
      continue;
    }
    // Only what has not been sent: the reply may have been in an answer that was lost.
    if (result == failure::unreachable && wait.goes_on_after(result, false)) continue;
    return wait.cancelled() ? Result(failure::cancelled) : for_callers(result);
  }
}

// A proxy ends its connection to the main server with every wait, whether a reply came or not, so a
// second wait would miss the reply: it is one call, on a thread that a cancellation leaves behind.
Result Exchange::wait_through_proxy(Payload& reply, Wait& wait) {
  auto taken = std::make_shared<Payload>();
  const std::chrono::seconds time = wait.left(longest_proxied_wait);
  std::packaged_task<Result()> task([link = link_, life = life_, handle = handle_, time, taken] {
    return link->call_in(life, time, [&](Port_Factory_ptr server) {
      Varo::DATA_BUFFER_var data;
      const unsigned int code =
          server->packet_replay_wait(handle, data.out(), static_cast<CORBA::ULong>(time.count()));
      if (code == result::ok) *taken = payload_of(data.in());
      return code;
    });
  });
  std::future<Result> answer = task.get_future();
  std::thread thread(std::move(task));
  while (answer.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready) {
    if (!wait.cancelled()) continue;
    thread.detach();
    return Result(failure::cancelled);
  }
  thread.join();
  const Result result = answer.get();
  if (result) reply = std::move(*taken);
  return result;
}

}  // namespace portsvc::client::detail
