// The directory of servers: who there is, in which role, and how to reach them. It has two
// implementations, a file that people write and a naming service that servers enter themselves in.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "middleware/orb/orb.h"

namespace portsvc {

inline constexpr const char* role_main = "main";
inline constexpr const char* role_sub = "slave";

/// Finds servers by name and by role. Every operation may be called from any thread.
///
/// Realms: a server that was entered without a realm is found under every realm, and asking
/// without a realm (an empty text) finds the servers of all of them.
class Directory {
 public:
  virtual ~Directory() = default;

  /// The reference of a server, nil when the directory does not know it or cannot be asked. The
  /// server itself is not called. Never throws.
  virtual CORBA::Object_var resolve(const std::string& server, const std::string& realm) = 0;

  /// The names of the servers of a role, each once, in an order that only changes when the
  /// directory does. Empty when the directory cannot be asked. Never throws.
  virtual std::vector<std::string> servers(const std::string& role, const std::string& realm) = 0;

  /// Reads again what it has read before, whether or not it seems to have changed. Never throws.
  virtual void read_again() {}

  /// Whether servers enter themselves.
  virtual bool takes_entries() const { return true; }

  /// Enters this process's own server, in place of an earlier entry of that name. A file is
  /// written by people: there it does nothing. Throws orb::Error when the directory cannot be
  /// asked.
  virtual void bind(const std::string& server, const std::string& realm, const std::string& role,
                    CORBA::Object_ptr reference) = 0;

  /// Takes the entry away again, if it still is this process's. Never throws.
  virtual void unbind(const std::string& server, const std::string& realm, const std::string& role,
                      CORBA::Object_ptr reference) = 0;
};

/// The directory in an INI file: a section per server, named after it.
///
///     [plant1]
///     role = main
///     reference = corbaloc:iiop:10.0.0.1:9700/PortService
///     [line7]
///     role = slave
///     reference = IOR:0100...
///     realm = north
///
/// `role` is main or slave, `reference` a corbaloc or an IOR, `realm` may be left out. Servers are
/// listed in the order of the file. The file is read again when it has changed; a change that
/// cannot be read leaves the directory as it was before and is told `complain`, which is called
/// from any thread with one line and may be empty.
/// Throws orb::Error when the file is missing or malformed, or when an entry is incomplete. The
/// broker must outlive the directory.
std::shared_ptr<Directory> open_file_directory(
    const orb::Broker& broker, const std::string& path,
    std::function<void(const std::string&)> complain = nullptr);

/// The directory in a naming service, at `reference` (usually corbaloc::HOST:2809/NameService).
/// A server is entered under the contexts PortService / REALM / ROLE and its name; servers without
/// a realm stand under "-". Servers are listed by name. Nothing is called yet; every later call
/// has the peer call time-out. Throws orb::Error for a text that is no reference.
std::shared_ptr<Directory> open_naming_directory(const orb::Broker& broker,
                                                 const std::string& reference);

/// The directory that vrReferenceContainer, vrData_Sender and Kestrum::GetServerNames ask, and the
/// realm whose servers they list.
struct DirectoryInUse {
  std::shared_ptr<Directory> directory;  ///< null before use_directory
  std::string realm;
};

/// Puts a directory in use for the process, null none. References that were cached from the one
/// before are forgotten.
void use_directory(std::shared_ptr<Directory> directory, const std::string& realm);

/// What is in use now.
DirectoryInUse directory_in_use();

}  // namespace portsvc
