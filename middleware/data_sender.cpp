#include "middleware/data_sender.h"

#include <algorithm>

#include "middleware/directory.h"
#include "middleware/server_list.h"

vrData_Sender::vrData_Sender(const char* name) : name_(name ? name : "") {}

void vrData_Sender::get_consumer_list(std::vector<ACE_String_Base<char>>& list) {
  std::vector<std::string> consumers;
  {
    const std::lock_guard<std::mutex> guard(lock_);
    consumers = pushed_;
  }
  Kestrum::ServerNameList subs;
  Kestrum::GetServerNames(portsvc::role_sub, subs);
  for (const std::string& sub : subs.names) {
    // A sub server is no consumer of its own data.
    if (sub != name_ && std::find(consumers.begin(), consumers.end(), sub) == consumers.end()) {
      consumers.push_back(sub);
    }
  }
  for (const std::string& consumer : consumers) list.emplace_back(consumer.c_str());
}

void vrData_Sender::push_remote_consumer(const char* name, const char* /*key*/) {
  if (!name) return;
  const std::lock_guard<std::mutex> guard(lock_);
  if (std::find(pushed_.begin(), pushed_.end(), name) == pushed_.end()) pushed_.emplace_back(name);
}
