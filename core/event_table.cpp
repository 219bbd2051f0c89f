#include "core/event_table.h"

#include <algorithm>
#include <boost/make_shared.hpp>

namespace portsvc {

boost::shared_ptr<const Event_Table::Names> Event_Table::names(int code) const {
  const auto found = names_.find(code);
  return found == names_.end() ? boost::shared_ptr<const Names>() : found->second;
}

bool Event_Table::add(const std::string& name, int code) {
  std::vector<int>& codes = codes_[name];
  if (std::find(codes.begin(), codes.end(), code) != codes.end()) return false;
  codes.push_back(code);
  try {
    to_change(names_[code]).push_back(name);
  } catch (...) {
    codes.pop_back();
    const auto entry = names_.find(code);
    if (entry != names_.end() && !entry->second) names_.erase(entry);
    throw;
  }
  return true;
}

void Event_Table::remove(const std::string& name) {
  const auto found = codes_.find(name);
  if (found == codes_.end()) return;
  // Code by code, so that both indexes agree also when a list cannot be copied.
  for (std::vector<int>& codes = found->second; !codes.empty(); codes.pop_back()) {
    Names& names = to_change(names_[codes.back()]);
    names.erase(std::find(names.begin(), names.end(), name));
  }
  codes_.erase(found);
}

void Event_Table::clear() {
  names_.clear();
  codes_.clear();
}

std::size_t Event_Table::subscriptions() const {
  std::size_t total = 0;
  for (const auto& entry : names_) total += entry.second->size();
  return total;
}

// A list that somebody still reads is copied first. New readers cannot come while the caller has
// the table for writing, and Boost reads its count with acquire order (the standard library does
// not), so the last reader's reading is over once the count says so.
Event_Table::Names& Event_Table::to_change(boost::shared_ptr<Names>& names) {
  if (!names) {
    names = boost::make_shared<Names>();
  } else if (names.use_count() != 1) {
    names = boost::make_shared<Names>(*names);
  }
  return *names;
}

}  // namespace portsvc
