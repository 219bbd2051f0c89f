#include "ports/client_index.h"

#include <ace/Guard_T.h>

#include <string_view>

#include "ports/port_impl.h"

namespace portsvc {

void Client_Index::add(unsigned int handle, Port_impl* port) {
  ACE_GUARD(ACE_Thread_Mutex, guard, lock_);
  ports_.emplace(handle, port);
}

void Client_Index::remove(unsigned int handle, Port_impl* port) {
  ACE_GUARD(ACE_Thread_Mutex, guard, lock_);
  const auto [begin, end] = ports_.equal_range(handle);
  for (auto entry = begin; entry != end; ++entry) {
    if (entry->second == port) {
      ports_.erase(entry);
      return;
    }
  }
}

Port_impl* Client_Index::first(unsigned int handle) const {
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, lock_, nullptr);
  Port_impl* first = nullptr;
  const auto [begin, end] = ports_.equal_range(handle);
  for (auto entry = begin; entry != end; ++entry) {
    if (!first || std::string_view(entry->second->name()) < std::string_view(first->name())) {
      first = entry->second;
    }
  }
  return first;
}

}  // namespace portsvc
