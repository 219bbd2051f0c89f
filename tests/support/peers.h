// Other servers, in this process: a broker, a directory to find them in, and stand-ins for them.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include "tests/support/fake_directory.h"
#include "tests/support/servers.h"

namespace portsvc {

/// A servant that can be called by reference until stop(), and owned by this object.
template <class Servant>
class Active {
 public:
  template <class... Args>
  explicit Active(Args&&... args)
      : servant_(new Servant(std::forward<Args>(args)...)), reference_(servant_->_this()) {}
  ~Active() { stop(); }
  Active(const Active&) = delete;
  Active& operator=(const Active&) = delete;

  Servant* operator->() const { return servant_.in(); }
  Servant& operator*() const { return *servant_.in(); }
  Varo::DT_PORT_SVC::Port_Factory_ptr reference() const { return reference_.in(); }
  CORBA::Object_var object() const { return CORBA::Object::_duplicate(reference_.in()); }

  /// From here on calls by reference fail with a broker exception.
  void stop() {
    if (stopped_) return;
    stopped_ = true;
    const PortableServer::POA_var adapter = servant_->_default_POA();
    const PortableServer::ObjectId_var id = adapter->servant_to_id(servant_.in());
    adapter->deactivate_object(id.in());
  }

 private:
  const PortableServer::Servant_var<Servant> servant_;
  const Varo::DT_PORT_SVC::Port_Factory_var reference_;
  bool stopped_ = false;
};

/// A server that notes the calls it gets, "operation argument ...", and answers as it is told.
class FakePeer : public MainServer {
 public:
  using Data = Varo::DATA_BUFFER;

  /// The calls since the last time this was asked.
  Texts calls() {
    const std::lock_guard<std::mutex> guard(lock_);
    return std::exchange(calls_, {});
  }
  /// The answers an operation gives from now on, one after the other; afterwards the last again.
  void answer(const std::string& operation, std::deque<unsigned int> codes) {
    const std::lock_guard<std::mutex> guard(lock_);
    answers_[operation] = std::move(codes);
  }
  /// Makes an operation fail with a broker exception, or work again.
  void fail(const std::string& operation, bool fails = true) {
    const std::lock_guard<std::mutex> guard(lock_);
    if (fails) {
      failing_.insert(operation);
    } else {
      failing_.erase(operation);
    }
  }

  /// Makes get_port_info know a port; the others are no_such_port.
  void has(const std::string& name, unsigned int kind, unsigned int id, unsigned int limit = 5) {
    Varo::DT_PORT_SVC::PORT_INFO info{};
    info.kind = kind;
    info.port_id = id;
    info.limit = limit;
    info_[name] = info;
  }

  /// How many threads have called so far.
  std::size_t calling_threads() {
    const std::lock_guard<std::mutex> guard(lock_);
    return threads_.size();
  }

  /// Called during each call, before it is answered.
  std::function<void(const std::string& operation)> during;
  unsigned int reported_owner = 0;  ///< owner of connect_port
  Names listed;                     ///< of patch_object_name
  std::string keeper = "keeper";    ///< of inquire_master
  std::atomic<int> delay_ms{0};     ///< how long every call takes

  CORBA::ULong connect_port(const char* name, CORBA::ULong& handle, CORBA::ULong mode,
                            CORBA::ULong access, CORBA::ULong& owner) override {
    owner = reported_owner;
    return note("connect_port", &handle, name, mode, access);
  }
  CORBA::ULong disconnect_port(CORBA::ULong handle) override {
    return note("disconnect_port", nullptr, handle);
  }
  CORBA::ULong packet_foward(CORBA::ULong handle, const Data& data, CORBA::ULong timeout) override {
    return note("packet_foward", nullptr, handle, text(data), timeout);
  }
  CORBA::ULong packet_receive(CORBA::ULong id, CORBA::ULong& source, Varo::DATA_BUFFER_out data,
                              CORBA::ULong timeout) override {
    source = 42;
    data = new Data(wire("packet"));
    return note("packet_receive", nullptr, id, timeout);
  }
  CORBA::ULong packet_replay(CORBA::ULong handle, const Data& data, CORBA::ULong timeout) override {
    return note("packet_replay", nullptr, handle, text(data), timeout);
  }
  CORBA::ULong packet_replay_wait(CORBA::ULong handle, Varo::DATA_BUFFER_out data,
                                  CORBA::ULong timeout) override {
    data = new Data(wire("reply"));
    return note("packet_replay_wait", nullptr, handle, timeout);
  }
  CORBA::ULong get_port_info(const char* name, Varo::DT_PORT_SVC::PORT_INFO& out) override {
    const unsigned int answer = note("get_port_info", nullptr, name);
    const auto found = info_.find(name);
    if (found == info_.end()) return result::no_such_port;
    out = found->second;
    return answer;
  }
  CORBA::ULong patch_object_name(Varo::STRING_LIST_out ports,
                                 Varo::STRING_LIST_out boxes) override {
    ports = list(listed.first);
    boxes = list(listed.second);
    return note("patch_object_name", nullptr);
  }
  CORBA::ULong push_remote_consumer(const char* name) override {
    return note("push_remote_consumer", nullptr, name);
  }
  CORBA::ULong update_port(const char* name, CORBA::ULong handle, const Data& data) override {
    return note("update_port", nullptr, name, handle, text(data));
  }
  CORBA::ULong update_port_front(const char* name, CORBA::ULong handle, const Data& data) override {
    return note("update_port_front", nullptr, name, handle, text(data));
  }
  CORBA::ULong force_toslave(const char* server, const char* name) override {
    return note("force_toslave", nullptr, server, name);
  }
  CORBA::ULong inquire_master(const char* name, CORBA::String_out master) override {
    master = CORBA::string_dup(keeper.c_str());
    return note("inquire_master", nullptr, name);
  }

 private:
  static Varo::STRING_LIST* list(const Texts& names) {
    auto filled = std::make_unique<Varo::STRING_LIST>();
    filled->length(static_cast<CORBA::ULong>(names.size()));
    for (CORBA::ULong i = 0; i < names.size(); ++i) (*filled)[i] = names[i].c_str();
    return filled.release();
  }

  template <class... Args>
  unsigned int note(const char* operation, CORBA::ULong* fresh_handle, const Args&... arguments) {
    std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
    if (const auto call = during) call(operation);
    const std::lock_guard<std::mutex> guard(lock_);
    if (fresh_handle) *fresh_handle = ++last_handle_;
    threads_.insert(std::this_thread::get_id());
    std::string call = operation;
    (call.append(fmt::format(" {}", arguments)), ...);
    calls_.push_back(call);
    if (failing_.count(operation)) throw CORBA::TRANSIENT();
    std::deque<unsigned int>& codes = answers_[operation];
    if (codes.empty()) return result::ok;
    const unsigned int code = codes.front();
    if (codes.size() > 1) codes.pop_front();
    return code;
  }

  std::map<std::string, Varo::DT_PORT_SVC::PORT_INFO> info_;  // set before anybody calls
  std::mutex lock_;                                           // guards what follows
  Texts calls_;
  std::set<std::thread::id> threads_;
  std::map<std::string, std::deque<unsigned int>> answers_;
  std::set<std::string> failing_;
  CORBA::ULong last_handle_ = 0;
};

/// A test with a clock, a broker whose adapter takes calls, and a directory in use.
class WithPeers : public ::testing::Test {
 protected:
  WithPeers() {
    const CORBA::Object_var object = broker.orb()->resolve_initial_references("RootPOA");
    const PortableServer::POA_var adapter = PortableServer::POA::_narrow(object);
    const PortableServer::POAManager_var manager = adapter->the_POAManager();
    manager->activate();
    use_directory(directory, "");
  }
  ~WithPeers() override { use_directory(nullptr, ""); }
  CORBA::ORB_var shared_orb() const { return CORBA::ORB::_duplicate(broker.orb()); }

  TestClock clock;
  std::shared_ptr<FakeDirectory> directory = std::make_shared<FakeDirectory>();
  orb::Broker broker{{"giop:tcp:127.0.0.1:0"}};
};

}  // namespace portsvc
