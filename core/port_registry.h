// The ports of a servant by name and by id, and the order in which they were created.
#pragma once

#include <boost/shared_ptr.hpp>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>

#include "ports/client_index.h"
#include "ports/port_impl.h"

namespace portsvc {

/// Port table, id table and the two name lists, kept in step. Not locked: the servant guards it
/// with its registry lock.
///
/// Invariants: names are unique; every port in the table stands in exactly one name list and in
/// the client index; its id was entered in the id table. The id table may hold more: clear() leaves
/// it, and a proxy may have changed its id since. A port is found by id through its name, so an id
/// whose name was given to a new port finds that one.
///
/// Lookups allocate nothing and cost the same for ten ports and for a hundred thousand; adding and
/// removing cost at most a logarithm. (Sorted vectors would move half of all entries each time.)
class Port_Registry {
 public:
  using Names = std::list<std::string_view>;
  struct Entry {
    boost::shared_ptr<Port_impl> port;
    bool is_box;
    Names::iterator place;  // in the name list
  };
  using Ports = std::unordered_map<std::string_view, Entry>;  // the key is the port's own name

  ~Port_Registry() { (void)take_all(); }

  /// The port, empty when there is none.
  boost::shared_ptr<Port_impl> find(std::string_view name) const;
  boost::shared_ptr<Port_impl> find_id(unsigned int id) const;
  /// Of the ports that hold this client handle the first in name order, empty when there is none.
  boost::shared_ptr<Port_impl> find_client(unsigned int handle) const;

  std::size_t size() const { return ports_.size(); }
  bool has_id(unsigned int id) const { return ids_.count(id) != 0; }
  /// True while a client of a port holds the number, or it leads to a port.
  bool in_use(unsigned int handle) const {
    return clients_.first(handle) != nullptr || find_id(handle) != nullptr;
  }
  /// The largest id ever entered and not removed; first_client_handle when there is none.
  unsigned int last_id() const;

  /// Enters a port whose name is not in yet. `as_box`: into the list of event boxes. An id that is
  /// in the id table keeps its entry. Throws std::bad_alloc, then nothing is entered.
  void add(const boost::shared_ptr<Port_impl>& port, bool as_box);
  /// Takes a port out again, with the id it carries now.
  void remove(const Port_impl& port);
  /// Enters the id that a port in the table carries now, beside its earlier ones.
  void add_id(const Port_impl& port) { ids_.emplace(port.port_id(), port.name()); }
  /// Takes all ports out and answers them; the id table stays. Let them go without the lock: what
  /// they hold may take a while to free.
  [[nodiscard]] Ports take_all();

  /// Names in creation order. They point into the ports and are good under the registry lock.
  const Names& port_names() const { return port_names_; }
  const Names& box_names() const { return box_names_; }

  /// Calls visit(const boost::shared_ptr<Port_impl>&) for every port, in no particular order.
  template <class Visit>
  void for_each(Visit&& visit) const {
    for (const auto& entry : ports_) visit(entry.second.port);
  }

 private:
  Ports ports_;
  std::map<unsigned int, std::string> ids_;
  Names port_names_;
  Names box_names_;
  Client_Index clients_;
};

}  // namespace portsvc
