// The one table that port_bench prints.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace portsvc::bench {

/// A bound on a row's ratio, or on its value where nothing stands beside it.
struct Target {
  double bound;
  bool at_least = false;  ///< the figure must not be below the bound, else not above it
};

struct Row {
  std::string what;
  std::string payload;             ///< "100 B"; empty where none counts
  unsigned int connections = 0;    ///< 0 where none counts
  std::string processors = "all";  ///< Pinned::processors(), or all
  std::string against;             ///< what is measured beside it; empty for nothing
  std::optional<double> reference;
  std::optional<double> value;  ///< nothing when it could not be measured
  std::string unit;
  std::optional<Target> target;
  std::string note;
};

/// Prints each row as it is added, or all of them as JSON at the end.
class Table {
 public:
  explicit Table(bool json) : json_(json) {}

  /// Rows that follow belong to this section.
  void begin(const std::string& section) { section_ = section; }
  void add(const Row& row);
  /// Ends the table. Prints it when it is JSON.
  void finish();

 private:
  const bool json_;
  std::string section_;
  nlohmann::json rows_ = nlohmann::json::array();
};

/// "100 B", "4 KiB", "1 MiB".
std::string size_text(std::size_t bytes);

}  // namespace portsvc::bench
