// A directory without a file or a naming service.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "middleware/directory.h"

namespace portsvc {

/// Finds what a test has entered, and counts how often it is asked.
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

}  // namespace portsvc
