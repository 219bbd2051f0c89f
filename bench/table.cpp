#include "bench/table.h"

#include <fmt/format.h>

#include <cstdio>

namespace portsvc::bench {
namespace {

constexpr const char* row_format =
    "{:<9} {:<51} {:>7} {:>5} {:>4}  {:<26} {:>11} {:>11} {:<6} {:>7} {:<9} {}\n";

std::string number(const std::optional<double>& value) {
  if (!value) return "";
  if (*value >= 10000) return fmt::format("{:.0f}", *value);
  return fmt::format("{:.4g}", *value);
}

}  // namespace

void Table::add(const Row& row) {
  std::optional<double> ratio;
  if (row.value && row.reference && *row.reference > 0) ratio = *row.value / *row.reference;
  const std::optional<double>& judged = row.against.empty() ? row.value : ratio;
  std::string verdict;
  if (row.target && judged) {
    const bool met =
        row.target->at_least ? *judged >= row.target->bound : *judged <= row.target->bound;
    verdict = fmt::format("{}{:.4g}{}", row.target->at_least ? ">=" : "<=", row.target->bound,
                          met ? "" : " MISS");
  }

  if (!json_) {
    if (rows_.empty()) {
      fmt::print(row_format, "section", "what", "payload", "conns", "cpus", "against", "reference",
                 "value", "unit", "ratio", "target", "note");
    }
    fmt::print(row_format, section_, row.what, row.payload,
               row.connections == 0 ? "" : std::to_string(row.connections), row.processors,
               row.against, number(row.reference), number(row.value), row.unit,
               ratio ? fmt::format("{:.3f}", *ratio) : "", verdict, row.note);
    std::fflush(stdout);
  }

  const auto or_null = [](const std::optional<double>& value) {
    return value ? nlohmann::json(*value) : nlohmann::json();
  };
  rows_.push_back({{"section", section_},
                   {"what", row.what},
                   {"payload", row.payload},
                   {"connections", row.connections},
                   {"processors", row.processors},
                   {"against", row.against},
                   {"reference", or_null(row.reference)},
                   {"value", or_null(row.value)},
                   {"unit", row.unit},
                   {"ratio", or_null(ratio)},
                   {"target", verdict},
                   {"note", row.note}});
}

void Table::finish() {
  if (json_) fmt::print("{}\n", rows_.dump(2));
}

std::string size_text(std::size_t bytes) {
  if (bytes >= 1U << 20) return fmt::format("{} MiB", bytes >> 20);
  if (bytes >= 1U << 10) return fmt::format("{} KiB", bytes >> 10);
  return fmt::format("{} B", bytes);
}

}  // namespace portsvc::bench
