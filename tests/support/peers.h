// Other servers, in this process: a broker, a directory to find them in, and stand-ins for them.
#pragma once

#include <fmt/format.h>

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "middleware/directory.h"
#include "tests/support/servers.h"

namespace portsvc {

/// A directory without a file or a naming service: finds what a test has entered, and counts how
/// often it is asked.
class FakeDirectory : public Directory {
 public:
  CORBA::Object_var resolve(const std::string& server, const std::string& realm) override {
    const std::lock_guard<std::mutex> guard(lock_);
    ++asked_[server + "@" + realm];
    const auto found = servers_.find(server);
    return found == servers_.end() ? CORBA::Object_var() : found->second;
  }
  std::vector<std::string> servers(const std::string& role, const std::string&) override {
    return role == role_sub ? subs : std::vector<std::string>();
  }
  void bind(const std::string&, const std::string&, const std::string&,
            CORBA::Object_ptr) override {}
  void unbind(const std::string&, const std::string&, const std::string&,
              CORBA::Object_ptr) override {}

  void enter(const std::string& server, CORBA::Object_var reference) {
    const std::lock_guard<std::mutex> guard(lock_);
    servers_[server] = reference;
  }
  /// How often "SERVER@REALM" was looked up.
  int asked(const std::string& server) {
    const std::lock_guard<std::mutex> guard(lock_);
    return asked_[server];
  }

  std::vector<std::string> subs;  ///< the sub servers' names

 private:
  std::mutex lock_;  // guards the two below
  std::map<std::string, CORBA::Object_var> servers_;
  std::map<std::string, int> asked_;
};

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
  using Name = const char*;
  using Number = CORBA::ULong;

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
    failing_[operation] = fails;
  }

  /// Makes get_port_info know a port; the others are no_such_port.
  void has(const std::string& name, unsigned int kind, unsigned int id, unsigned int limit = 5) {
    info_[name] = {kind, id, 0, 0, limit};
  }

  /// Called during each call, before it is answered.
  std::function<void(const std::string& operation)> during;
  unsigned int reported_owner = 0;  ///< owner of connect_port
  Names listed;                     ///< of patch_object_name
  std::string keeper = "keeper";    ///< of inquire_master

  Number connect_port(Name name, Number& handle, Number mode, Number access,
                      Number& owner) override {
    owner = reported_owner;
    const Number code = note(__func__, name, mode, access);
    handle = ++last_handle_;
    return code;
  }
  Number disconnect_port(Number handle) override { return note(__func__, handle); }
  Number packet_foward(Number handle, const Data& data, Number timeout) override {
    return note(__func__, handle, text(data), timeout);
  }
  Number packet_receive(Number id, Number& source, Varo::DATA_BUFFER_out data,
                        Number timeout) override {
    source = 42;
    data = new Data(wire("packet"));
    return note(__func__, id, timeout);
  }
  Number packet_replay(Number handle, const Data& data, Number timeout) override {
    return note(__func__, handle, text(data), timeout);
  }
  Number packet_replay_wait(Number handle, Varo::DATA_BUFFER_out data, Number timeout) override {
    data = new Data(wire("reply"));
    return note(__func__, handle, timeout);
  }
  Number get_port_info(Name name, Varo::DT_PORT_SVC::PORT_INFO& out) override {
    const unsigned int answer = note(__func__, name);
    const auto found = info_.find(name);
    if (found == info_.end()) return result::no_such_port;
    out = found->second;
    return answer;
  }
  Number patch_object_name(Varo::STRING_LIST_out ports, Varo::STRING_LIST_out boxes) override {
    ports = list(listed.first);
    boxes = list(listed.second);
    return note(__func__);
  }
  Number push_remote_consumer(Name name) override { return note(__func__, name); }
  Number update_port(Name name, Number handle, const Data& data) override {
    return note(__func__, name, handle, text(data));
  }
  Number update_port_front(Name name, Number handle, const Data& data) override {
    return note(__func__, name, handle, text(data));
  }
  Number force_toslave(Name server, Name name) override { return note(__func__, server, name); }
  Number inquire_master(Name name, CORBA::String_out master) override {
    master = CORBA::string_dup(keeper.c_str());
    return note(__func__, name);
  }

 private:
  static Varo::STRING_LIST* list(const Texts& names) {
    auto filled = std::make_unique<Varo::STRING_LIST>();
    filled->length(static_cast<CORBA::ULong>(names.size()));
    for (CORBA::ULong i = 0; i < names.size(); ++i) (*filled)[i] = names[i].c_str();
    return filled.release();
  }

  template <class... Args>
  unsigned int note(const char* operation, const Args&... arguments) {
    if (const auto call = during) call(operation);
    const std::lock_guard<std::mutex> guard(lock_);
    std::string call = operation;
    (call.append(fmt::format(" {}", arguments)), ...);
    calls_.push_back(call);
    if (failing_[operation]) throw CORBA::TRANSIENT();
    std::deque<unsigned int>& codes = answers_[operation];
    if (codes.empty()) return result::ok;
    const unsigned int code = codes.front();
    if (codes.size() > 1) codes.pop_front();
    return code;
  }

  std::map<std::string, Varo::DT_PORT_SVC::PORT_INFO> info_;  // set before anybody calls
  std::atomic<Number> last_handle_{0};
  std::mutex lock_;  // guards what follows
  Texts calls_;
  std::map<std::string, std::deque<unsigned int>> answers_;
  std::map<std::string, bool> failing_;
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
