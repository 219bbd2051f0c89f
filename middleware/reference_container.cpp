#include "middleware/reference_container.h"

#include <chrono>

#include "middleware/directory.h"

using Varo::DT_PORT_SVC::Port_Factory;
using Varo::DT_PORT_SVC::Port_Factory_ptr;
using Varo::DT_PORT_SVC::Port_Factory_var;

namespace {

// Asks the server whether it is a port service. Each idle connection to a server that was restarted
// fails one call before it is given up: such a failure says nothing about the server, so the
// question is repeated until it has gone over a new connection.
Port_Factory_ptr narrowed(CORBA::Object_ptr object) {
  using std::chrono::steady_clock;
  const portsvc::orb::CallTimeout limit;
  const auto deadline = steady_clock::now() + portsvc::orb::peer_call_timeout();
  for (;;) {
    const std::uint64_t opened = portsvc::orb::connections_opened(object);
    try {
      return Port_Factory::_narrow(object);
    } catch (const CORBA::COMM_FAILURE&) {
      if (portsvc::orb::connections_opened(object) != opened) throw;
      if (steady_clock::now() >= deadline) throw;
    }
  }
}

}  // namespace

vrReferenceContainer* vrReferenceContainer::instance() {
  return ACE_Singleton<vrReferenceContainer, ACE_Thread_Mutex>::instance();
}

Port_Factory_ptr vrReferenceContainer::GetPortReferenceWithServerName(const char* server,
                                                                      const char* realm) {
  const Key key(server ? server : "", realm ? realm : "");
  {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto found = references_.find(key);
    if (found != references_.end()) return Port_Factory::_duplicate(found->second.reference.in());
  }
  const portsvc::DirectoryInUse in_use = portsvc::directory_in_use();
  if (!in_use.directory) return Port_Factory::_nil();
  CORBA::Object_var object;
  Port_Factory_var reference;
  try {
    object = in_use.directory->resolve(key.first, key.second);
    reference = narrowed(object);
  } catch (const CORBA::Exception&) {
    return Port_Factory::_nil();
  }
  if (CORBA::is_nil(reference.in())) return Port_Factory::_nil();
  const std::lock_guard<std::mutex> guard(lock_);
  references_[key] = {object, reference};
  return reference._retn();
}

void vrReferenceContainer::ReleasePortReference(const char* server, const char* realm) {
  Kept forgotten;  // dropped after the lock
  const std::lock_guard<std::mutex> guard(lock_);
  const auto found = references_.find(Key(server ? server : "", realm ? realm : ""));
  if (found == references_.end()) return;
  forgotten = found->second;
  references_.erase(found);
}

void vrReferenceContainer::FollowDirectory(const char* server, const char* realm) {
  const Key key(server ? server : "", realm ? realm : "");
  CORBA::Object_var entry;
  {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto found = references_.find(key);
    if (found == references_.end()) return;
    entry = found->second.entry;
  }
  const portsvc::DirectoryInUse in_use = portsvc::directory_in_use();
  if (!in_use.directory) return;
  const CORBA::Object_var now = in_use.directory->resolve(key.first, key.second);
  if (CORBA::is_nil(now.in()) || now->_is_equivalent(entry.in())) return;
  ReleasePortReference(server, realm);
}

void vrReferenceContainer::ReleaseAll() {
  std::map<Key, Kept> forgotten;
  const std::lock_guard<std::mutex> guard(lock_);
  forgotten.swap(references_);
}
