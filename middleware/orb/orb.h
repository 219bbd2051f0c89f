// The object request broker: the only place that knows which broker the system is built on. It
// brings in the generated stubs and skeletons and offers what differs between brokers: options,
// the endpoint and object key, per-call time-outs.
#pragma once

#if defined(PORTSVC_ORB_TAO)
#include "port_serviceS.h"
#else
#include "port_service.hh"
#endif

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace portsvc::orb {

/// What went wrong with the broker, in one line for people.
class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What a process needs for TLS, PEM files both. With it the process can serve at a "giop:ssl"
/// endpoint and call servers there; each side must show a certificate of a trusted authority.
struct Tls {
  std::string authorities;  ///< the certificates of the authorities that are trusted
  std::string key;          ///< the process's own certificate and its private key

  bool in_use() const { return !authorities.empty() && !key.empty(); }
};

/// Set-up of the process's broker.
struct Options {
  /// "giop:tcp:HOST:PORT", or "giop:ssl:HOST:PORT", to serve there (PORT 0: any free port); empty
  /// for a pure client.
  std::string endpoint;
  /// Largest message accepted and sent, in bytes.
  std::uint64_t max_message = 64ULL << 20;
  /// The broker's own trace level, for finding faults. 0 keeps it silent.
  unsigned int trace = 0;
  /// A request that has not arrived this long after its first bytes, or a reply of which nothing
  /// has been taken for so long, gives up its connection and its thread. The largest message on a
  /// slow line must fit in. A request that stops within its first 64 KiB counts as an idle
  /// connection, which ends after three minutes.
  std::chrono::milliseconds message_timeout = std::chrono::minutes(2);
  Tls tls = {};
};

/// Throws Error for options with which a broker cannot start, as far as that shows without one: the
/// endpoint's form, the files of TLS.
void check(const Options& options);

/// The process's broker: one at a time, made before the first reference is used and destroyed
/// after the last servant is gone. Not thread-safe itself; the operations on references are.
class Broker {
 public:
  /// Starts the broker. Throws Error (for example when the address is in use).
  explicit Broker(const Options& options);
  /// Shuts the broker down, if that has not been done, and destroys it.
  ~Broker();
  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;

  CORBA::ORB_ptr orb() const;

  /// Activates `servant` in the default adapter and under portsvc::object_key (corbaloc), and
  /// starts taking calls; those that arrive earlier wait for it. Answers the reference with the
  /// well-known key, which stays good when the process is started again. The adapter holds a
  /// reference of its own to the servant until shutdown. Throws Error.
  Varo::DT_PORT_SVC::Port_Factory_var serve(POA_Varo::DT_PORT_SVC::Port_Factory* servant);

  /// Stops taking calls and waits until those under way have ended, at most `patience`. Calls that
  /// come meanwhile are refused with TRANSIENT, minor code refusal::stopping. False
  /// when some still run then; the broker must not be destroyed in that case.
  bool shutdown(std::chrono::milliseconds patience);

  /// Reads the files of the TLS options again, for connections made and taken from now on; without
  /// TLS it does nothing. Throws Error, and nothing has changed, when they are not valid.
  void read_certificates_again();

  /// The short form of the reference that serve() answered, corbaloc:iiop:HOST:PORT/KEY with the
  /// port that is really listened on; corbaloc:ssliop:... with TLS. Throws Error.
  std::string corbaloc(CORBA::Object_ptr served) const;

  /// The server that `served` names as others see it: this process's calls on it go over the
  /// network, where those on a reference that the broker knows for its own are plain function
  /// calls. A broker that knows its own server under any name answers `served`. Throws Error.
  CORBA::Object_var from_outside(CORBA::Object_ptr served) const;

  /// The stringified reference. Throws Error.
  std::string to_text(CORBA::Object_ptr object) const;
  /// The reference that a corbaloc, corbaname or IOR text names, never nil. Nothing is called, but
  /// a corbaname asks its naming service, under the peer call time-out. Throws Error for a text
  /// that is none.
  CORBA::Object_var from_text(const std::string& text) const;

  /// The process's broker, null while there is none.
  static Broker* running();

 private:
  /// Enters a broker as the process's while it lives.
  class Entry {
   public:
    explicit Entry(Broker* broker);
    ~Entry();
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;
  };

  struct Impl;
  std::unique_ptr<Impl> impl_;
  const Entry entry_{this};
};

/// The reference that a server's address names: itself for corbaloc, corbaname and IOR texts, a
/// corbaloc for HOST:PORT, with TLS when that is in use; nothing for what can only be a name.
std::optional<std::string> reference_text(const std::string& server, bool tls = false);

/// Time-out of a call to a peer that is not itself a wait: connect and call together.
std::chrono::milliseconds peer_call_timeout();
/// Changes it for the process (default 5 s).
void set_peer_call_timeout(std::chrono::milliseconds timeout);

/// While it lives, remote calls of this thread fail with a system exception once `timeout` has
/// passed since their start; zero means no limit. Scopes nest: the destructor restores the time-out
/// of the scope around it.
class CallTimeout {
 public:
  explicit CallTimeout(std::chrono::milliseconds timeout);
  /// The time-out of a call that is not a wait, or that of the scope around it if it is shorter.
  CallTimeout();
  ~CallTimeout();
  CallTimeout(const CallTimeout&) = delete;
  CallTimeout& operator=(const CallTimeout&) = delete;

 private:
  // The peer call time-out, or the one already in force if that is shorter; zero is none.
  static std::chrono::milliseconds usual_within(std::chrono::milliseconds in_force);

  std::chrono::milliseconds outer_;
};

/// Where a server listens.
struct Address {
  std::string host;  ///< a name or a number, an IPv6 one without brackets
  std::uint16_t port = 0;
  bool tls = false;
};

/// The addresses in a reference, none for a nil one. A broker that cannot tell answers none.
std::vector<Address> addresses(CORBA::Object_ptr object);

/// How many connections this process has opened, as a client, since it started, to the server
/// behind `object`; to all servers together when the reference names its server by a host name. A
/// growing number tells that a peer may have been restarted in between. A broker that cannot tell
/// answers another number each time.
std::uint64_t connections_opened(CORBA::Object_ptr object);

/// Lets connect_port calls of this process say who calls: a server, on behalf of its own callers.
/// The called one reads it with Caller::server(). Called once, before such calls are made. A broker
/// that cannot tell says nothing.
void tell_own_name(const std::string& name);

/// The connections that clients have to this process now, and how many it has taken since it
/// started. 0 on a broker that does not tell, and once the Broker is gone.
std::uint64_t connections_served();
std::uint64_t connections_taken();

/// Refuses the call that this thread is carrying out, because of a limit of the server: throws
/// CORBA::IMP_LIMIT with a minor code of namespace refusal.
[[noreturn]] void refuse(unsigned int minor);

/// While it lives, calls of this thread go over connections that are open already: one that would
/// open another fails with a system exception before it is sent, and sets `refused`. So what was
/// learned about the server at the other end still holds. A broker that cannot tell refuses none.
class OpenConnectionsOnly {
 public:
  explicit OpenConnectionsOnly(bool& refused);
  ~OpenConnectionsOnly();
  /// Whether a call has been given a connection. One that was refused all the same has lost it: it
  /// was dead, or the server has closed it upon what it was sent.
  bool had_connection() const;
  OpenConnectionsOnly(const OpenConnectionsOnly&) = delete;
  OpenConnectionsOnly& operator=(const OpenConnectionsOnly&) = delete;
};

/// How a call failed, as far as callers do different things about it.
enum class Failing {
  not_connected,  ///< there was no connection
  lost,           ///< the connection ended during the call, which may have been carried out
  late,           ///< no answer within the call's time-out
  stopping,       ///< the server refused it because it is being stopped
  too_large,      ///< the request or its answer is above the largest message of one side
  other
};
Failing kind_of(const CORBA::Exception& exception);

/// One line for people on a broker exception: its name, and what it usually means.
std::string describe(const CORBA::Exception& exception);

}  // namespace portsvc::orb
