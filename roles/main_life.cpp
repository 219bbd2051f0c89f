#include "roles/main_life.h"

#include <fmt/format.h>

#include <cerrno>
#include <new>
#include <random>
#include <utility>

#include "idl/port_codes.h"
#include "roles/sub_servers.h"

using Varo::DT_PORT_SVC::Port_Factory;
using Varo::DT_PORT_SVC::Port_Factory_ptr;

namespace portsvc {
namespace {

std::string new_mark(const std::string& self) {
  std::random_device random;
  return fmt::format("{} {:08x}{:08x}", self, random(), random());
}

/// The mark of the life `peer` is in; empty when it keeps none. With `first` it is made anew, which
/// ends what an earlier run of this server has left there.
std::string ask(Port_Factory_ptr peer, const std::string& self, bool first) {
  const orb::CallTimeout limit;
  const std::string name = std::string(mark_name) + self;
  if (first) {
    peer->force_toslave(new_mark(self).c_str(), (std::string(first_mark_name) + self).c_str());
  }
  CORBA::String_var mark;
  unsigned int answer = peer->inquire_master(name.c_str(), mark.out());
  if (answer == result::unknown_name) {
    peer->force_toslave(new_mark(self).c_str(), name.c_str());
    answer = peer->inquire_master(name.c_str(), mark.out());
  }
  return answer == result::ok ? mark.in() : "";
}

}  // namespace

Main_Life::Main_Life(std::string self) : self_(std::move(self)) {}

void Main_Life::keep_in(const std::string& path) {
  const std::lock_guard<std::mutex> guard(lock_);
  mark_ = file_.open(path);
  for (const unsigned int handle : file_.handles()) open_[handle] = true;
  first_ = mark_.empty();
}

std::uint64_t Main_Life::of(Port_Factory_ptr peer, bool certainly) {
  // Read before the question: a connection opened during it may lead to yet another life.
  const std::uint64_t connections = orb::connections_opened(peer);
  {
    const std::lock_guard<std::mutex> guard(lock_);
    const bool asked = CORBA::is_nil(peer_.in())
                           ? connections == 0
                           : connections == connections_ && peer->_is_equivalent(peer_.in());
    if (asked && !certainly) return number_;
  }
  const std::string mark = ask(peer, self_, first_.exchange(false));
  const std::lock_guard<std::mutex> guard(lock_);
  begin(mark, peer, connections);
  return number_;
}

void Main_Life::begin(const std::string& mark, Port_Factory_ptr peer, std::uint64_t connections) {
  peer_ = Port_Factory::_duplicate(peer);
  connections_ = connections;
  if (mark == mark_) return;
  mark_ = mark;
  ++number_;
  open_.clear();
  file_.begin(mark_);
}

void Main_Life::reached_anew() {
  const std::lock_guard<std::mutex> guard(lock_);
  if (mark_.empty()) ++number_;
}

void Main_Life::note(unsigned int handle, std::uint64_t life, PeerHandle now) {
  const std::lock_guard<std::mutex> guard(lock_);
  if (life != number_) return;
  switch (now) {
    case PeerHandle::opened:
      try {
        if (open_.size() < Handle_File::capacity && open_.emplace(handle, false).second) {
          file_.add(handle);
        }
      } catch (const std::bad_alloc&) {
        errno = ENOMEM;  // it is not remembered
      }
      break;
    case PeerHandle::closed:
      if (open_.erase(handle) != 0) file_.remove(handle);
      break;
    case PeerHandle::left_open:
      if (const auto found = open_.find(handle); found != open_.end()) found->second = true;
      break;
  }
}

std::vector<unsigned int> Main_Life::left_open(std::uint64_t& life) const {
  std::vector<unsigned int> handles;
  const std::lock_guard<std::mutex> guard(lock_);
  life = number_;
  for (const auto& [handle, left] : open_) {
    if (left) handles.push_back(handle);
  }
  return handles;
}

}  // namespace portsvc
