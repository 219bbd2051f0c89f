// This server's own entry in the directory.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "middleware/directory.h"

namespace portsvc::server {

/// Enters the server into the directory while it lives, and takes the entry away again. Every few
/// seconds a thread of its own sees whether the entry is there and enters it if it is missing: the
/// directory may not have been in reach, or may have lost its data.
class Announcement {
 public:
  /// Tries once, within about the peer call time-out; a failure is logged.
  Announcement(std::shared_ptr<Directory> directory, std::string server, std::string realm,
               std::string role, CORBA::Object_ptr reference);
  ~Announcement();
  Announcement(const Announcement&) = delete;
  Announcement& operator=(const Announcement&) = delete;

 private:
  bool enter(bool tell_failure);
  void keep_entered();

  const std::shared_ptr<Directory> directory_;
  const std::string server_;
  const std::string realm_;
  const std::string role_;
  const CORBA::Object_var reference_;

  std::mutex lock_;  ///< guards stop_; nothing is called under it
  std::condition_variable stopped_;
  bool stop_ = false;
  bool entered_ = false;  ///< written by the thread alone once it runs
  std::thread thread_;
};

}  // namespace portsvc::server
