// Who is subscribed to which event code.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace portsvc {

/// Event codes, ordered as signed numbers, each with the names subscribed under it in subscription
/// order, no name twice. Names are not checked against ports. A code whose last name is removed
/// stays, with an empty list. Not locked: the servant guards it with its event lock.
class Event_Table {
 public:
  using Names = std::vector<std::string>;

  bool empty() const { return names_.empty(); }

  /// The names under `code` as they are now; later changes do not reach the list handed out, which
  /// costs no copy. Null when the code is not in the table.
  boost::shared_ptr<const Names> names(int code) const;

  /// False when the name is under the code already.
  bool add(const std::string& name, int code);
  /// Takes the name out from under every code.
  void remove(const std::string& name);
  void clear();

  /// Calls visit(int code, const std::string& name) in code order, then subscription order.
  template <class Visit>
  void for_each(Visit&& visit) const {
    for (const auto& entry : names_) {
      for (const std::string& name : *entry.second) visit(entry.first, name);
    }
  }
  std::size_t subscriptions() const;

 private:
  static Names& to_change(boost::shared_ptr<Names>& names);

  std::map<int, boost::shared_ptr<Names>> names_;
  // The codes of each name: neither a repeated subscription nor a removal walks the whole table.
  std::unordered_map<std::string, std::vector<int>> codes_;
};

}  // namespace portsvc
