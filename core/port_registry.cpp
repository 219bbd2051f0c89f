#include "core/port_registry.h"

#include "idl/port_codes.h"

namespace portsvc {

boost::shared_ptr<Port_impl> Port_Registry::find(std::string_view name) const {
  const auto found = ports_.find(name);
  return found == ports_.end() ? boost::shared_ptr<Port_impl>() : found->second.port;
}

boost::shared_ptr<Port_impl> Port_Registry::find_id(unsigned int id) const {
  const auto found = ids_.find(id);
  return found == ids_.end() ? boost::shared_ptr<Port_impl>() : find(found->second);
}

boost::shared_ptr<Port_impl> Port_Registry::find_client(unsigned int handle) const {
  Port_impl* const port = clients_.first(handle);
  return port ? port->shared_from_this() : boost::shared_ptr<Port_impl>();
}

unsigned int Port_Registry::last_id() const {
  return ids_.empty() ? first_client_handle : ids_.rbegin()->first;
}

void Port_Registry::add(const boost::shared_ptr<Port_impl>& port, bool as_box) {
  const std::string_view name = port->name();
  Names& names = as_box ? box_names_ : port_names_;
  const Names::iterator place = names.insert(names.end(), name);
  bool id_entered = false;
  try {
    ports_.emplace(name, Entry{port, as_box, place});
    id_entered = ids_.emplace(port->port_id(), name).second;
    port->join_index(&clients_);
  } catch (...) {
    ports_.erase(name);
    names.erase(place);
    if (id_entered) ids_.erase(port->port_id());
    throw;
  }
}

void Port_Registry::remove(const Port_impl& port) {
  const auto found = ports_.find(port.name());
  if (found == ports_.end()) return;
  const Entry entry = found->second;  // keeps the port, whose name is the key, to the end
  ports_.erase(found);
  (entry.is_box ? box_names_ : port_names_).erase(entry.place);
  ids_.erase(entry.port->port_id());
  entry.port->leave_index();
}

Port_Registry::Ports Port_Registry::take_all() {
  for (const auto& entry : ports_) entry.second.port->leave_index();
  box_names_.clear();
  port_names_.clear();
  Ports taken;
  taken.swap(ports_);
  return taken;
}

}  // namespace portsvc
