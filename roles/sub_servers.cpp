#include "roles/sub_servers.h"

#include <algorithm>
#include <new>
#include <utility>

namespace portsvc {
namespace {

bool begins_with(std::string_view text, std::string_view beginning) {
  return text.substr(0, beginning.size()) == beginning;
}

std::string_view server_of(std::string_view name) { return name.substr(name.find(' ') + 1); }

}  // namespace

bool Sub_Servers::is_mark(std::string_view name) {
  return begins_with(name, mark_name) || begins_with(name, first_mark_name);
}

Sub_Servers::Handles Sub_Servers::enter(std::string_view name, const std::string& mark) {
  const std::string server(server_of(name));
  const std::lock_guard<std::mutex> guard(lock_);
  auto found = servers_.find(server);
  if (found == servers_.end()) {
    if (!make_room()) return {};
    found = servers_.emplace(server, Server()).first;
  } else if (!begins_with(name, first_mark_name)) {
    return {};
  }
  found->second.mark = mark;
  found->second.silent_rounds = 0;
  return take_handles(server);
}

bool Sub_Servers::make_room() {
  if (servers_.size() < most) return true;
  auto quietest = servers_.end();
  for (auto server = servers_.begin(); server != servers_.end(); ++server) {
    if (server->second.open != 0) continue;
    if (quietest == servers_.end() ||
        server->second.silent_rounds > quietest->second.silent_rounds) {
      quietest = server;
    }
  }
  if (quietest == servers_.end()) return false;
  servers_.erase(quietest);
  return true;
}

std::string Sub_Servers::ask(std::string_view name) {
  const std::lock_guard<std::mutex> guard(lock_);
  const auto found = servers_.find(server_of(name));
  if (found == servers_.end()) return {};
  found->second.silent_rounds = 0;
  return found->second.mark;
}

void Sub_Servers::opened(const std::string& server, unsigned int handle) noexcept try {
  const std::lock_guard<std::mutex> guard(lock_);
  const auto found = servers_.find(server);
  if (found == servers_.end() || !handles_.emplace(handle, server).second) return;
  ++found->second.open;
  handle_count_ = handles_.size();
} catch (const std::bad_alloc&) {
  // It stays open if its server is killed.
}

void Sub_Servers::closed(unsigned int handle) noexcept {
  if (handle_count_ == 0) return;
  const std::lock_guard<std::mutex> guard(lock_);
  const auto found = handles_.find(handle);
  if (found == handles_.end()) return;
  --servers_.find(found->second)->second.open;
  handles_.erase(found);
  handle_count_ = handles_.size();
}

Sub_Servers::Handles Sub_Servers::take_handles(const std::string& server) {
  Server& left = servers_.find(server)->second;
  Handles taken;
  if (left.open == 0) return taken;
  taken.reserve(left.open);
  for (auto next = handles_.begin(); next != handles_.end();) {
    if (next->second == server) {
      taken.push_back(next->first);
      next = handles_.erase(next);
    } else {
      ++next;
    }
  }
  left.open = 0;
  handle_count_ = handles_.size();
  return taken;
}

std::vector<Sub_Servers::Ended> Sub_Servers::next_round(unsigned int rounds) {
  std::vector<Ended> ended;
  const std::lock_guard<std::mutex> guard(lock_);
  for (auto next = servers_.begin(); next != servers_.end();) {
    const auto server = next++;
    if (++server->second.silent_rounds <= rounds || server->second.open == 0) continue;
    ended.push_back({server->first, take_handles(server->first)});
    servers_.erase(server);
  }
  return ended;
}

}  // namespace portsvc
