// The consumers that a server sends data to.
#pragma once

#include <ace/SString.h>

#include <mutex>
#include <string>
#include <vector>

/// Knows the consumers of one server: those that were pushed to it and the sub servers of the
/// process's directory. Every operation may be called from any thread.
class vrData_Sender {
 public:
  /// `name` is the server's own name.
  explicit vrData_Sender(const char* name);

  /// Appends the consumers' names to `list`: the pushed ones in order of arrival, then the sub
  /// servers of the directory that are not among them. May ask a naming service.
  void get_consumer_list(std::vector<ACE_String_Base<char>>& list);

  /// Adds a consumer, once however often it is pushed. `key` names the kind of reference the
  /// consumer is reached by; there is one kind, so it is not looked at.
  void push_remote_consumer(const char* name, const char* key);

 private:
  const std::string name_;
  std::mutex lock_;  ///< guards the pushed names; nothing is taken or called under it
  std::vector<std::string> pushed_;
};
