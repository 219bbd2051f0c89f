// References to the port services of other servers, by name.
#pragma once

#include <ace/Singleton.h>
#include <ace/Thread_Mutex.h>

#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "middleware/orb/orb.h"

/// Resolves (server name, realm) through the process's directory and keeps what it found until it
/// is released. One per process; every operation may be called from any thread and none throws.
class vrReferenceContainer {
 public:
  static vrReferenceContainer* instance();

  /// A reference to the server's port service, owned by the caller, or nil when the directory does
  /// not know the server, the server does not answer, or what answers is no port service. A
  /// reference that is not kept yet is asked for its type, which takes up to the peer call
  /// time-out when the server is silent. `realm` may be null for none.
  Varo::DT_PORT_SVC::Port_Factory_ptr GetPortReferenceWithServerName(const char* server,
                                                                     const char* realm);

  /// Forgets what is kept for the pair, so that the next lookup resolves it afresh.
  void ReleasePortReference(const char* server, const char* realm);

  /// Forgets what is kept for the pair if the directory has another reference by now. A directory
  /// that cannot be asked, or has none, changes nothing.
  void FollowDirectory(const char* server, const char* realm);

  /// Forgets everything.
  void ReleaseAll();

 private:
  friend class ACE_Singleton<vrReferenceContainer, ACE_Thread_Mutex>;
  vrReferenceContainer() = default;

  using Key = std::pair<std::string, std::string>;

  std::mutex lock_;  ///< guards the references; nothing is called or taken under it
  struct Kept {
    CORBA::Object_var entry;  ///< as the directory had it
    Varo::DT_PORT_SVC::Port_Factory_var reference;
  };
  std::map<Key, Kept> references_;
};
