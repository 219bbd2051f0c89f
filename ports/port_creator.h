// From a kind code to a port object: each role has its own mapping.
#pragma once

#include <ace/Singleton.h>
#include <ace/Thread_Mutex.h>

#include <boost/shared_ptr.hpp>
#include <map>

class Port_Factory_i;
class Port_impl;

/// Makes a port object of one class.
using Port_Maker = boost::shared_ptr<Port_impl> (*)(const char* name, unsigned int port_id,
                                                    unsigned int limit, Port_Factory_i* servant);

/// The kind table of a role. It is filled once, before the creator is handed out, and only read
/// afterwards, so create() takes no lock.
class vrPort_Creator {
 public:
  vrPort_Creator() = default;
  virtual ~vrPort_Creator() = default;
  vrPort_Creator(const vrPort_Creator&) = delete;
  vrPort_Creator& operator=(const vrPort_Creator&) = delete;

  /// Fills the kind table. An entry that exists already stays.
  virtual void register_kinds() = 0;

  /// A new port of the class that the role has for `kind`; empty for an unknown kind. The port's
  /// own kind is its class's, not the requested one. `servant` is not owned and must outlive it.
  boost::shared_ptr<Port_impl> create(const char* name, unsigned int port_id, unsigned int limit,
                                      unsigned int kind, Port_Factory_i* servant) const;

 protected:
  std::map<unsigned int, Port_Maker> kinds_;
};

/// Main role: PORT_MASTER is served here, PORT_SLAVE is a proxy.
class vrMainPort_Creator : public vrPort_Creator {
 public:
  void register_kinds() override;
};

/// Sub role: what the main server serves is a proxy here, and the other way round.
class vrSubPort_Creator : public vrPort_Creator {
 public:
  void register_kinds() override;
};

// The process's creators are ACE singletons; each fills its table as it comes into being.
template <>
inline ACE_Singleton<vrMainPort_Creator, ACE_Thread_Mutex>::ACE_Singleton() {
  instance_.register_kinds();
}
template <>
inline ACE_Singleton<vrSubPort_Creator, ACE_Thread_Mutex>::ACE_Singleton() {
  instance_.register_kinds();
}
