// This server's own entry in the directory.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "middleware/directory.h"

namespace portsvc::server {

/// Enters the server into the directory while it lives, and takes the entry away again. A
/// directory that cannot be asked is asked again every few seconds on a thread of its own.
class Announcement {
 public:
  /// Tries once, within about the peer call time-out; a failure is told on standard error.
  Announcement(std::shared_ptr<Directory> directory, std::string server, std::string realm,
               std::string role, CORBA::Object_ptr reference);
  ~Announcement();
  Announcement(const Announcement&) = delete;
  Announcement& operator=(const Announcement&) = delete;

 private:
  bool enter(bool tell_failure);
  void keep_trying();

  const std::shared_ptr<Directory> directory_;
  const std::string server_;
  const std::string realm_;
  const std::string role_;
  const CORBA::Object_var reference_;

  std::mutex lock_;  ///< guards stop_; nothing is called under it
  std::condition_variable stopped_;
  bool stop_ = false;
  bool entered_ = false;  ///< written by the thread alone once it runs
  std::thread retries_;   ///< runs only after a first try that failed
};

}  // namespace portsvc::server
