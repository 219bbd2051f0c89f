// The numbers of a command line.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace portsvc {

/// Lets the numbers among an option's values be decimal alone: 010 is ten, 0x10 is refused.
inline void make_numbers_decimal(CLI::Option& option) {
  const std::string type = option.get_type_name();
  if (type.compare(0, 4, "UINT") != 0 && type.compare(0, 3, "INT") != 0) return;
  option.transform([](const std::string& text) {
    const std::size_t sign = text.compare(0, 1, "-") == 0 ? 1 : 0;
    if (text.size() == sign || text.find_first_not_of("0123456789", sign) != std::string::npos) {
      throw CLI::ValidationError("'" + text + "' is no decimal number");
    }
    const std::size_t first = text.find_first_not_of('0', sign);
    return text.substr(0, sign) + (first == std::string::npos ? "0" : text.substr(first));
  });
}

/// The same for all options of a program and its subcommands.
inline void make_numbers_decimal(CLI::App& app) {
  for (CLI::Option* option : app.get_options([](CLI::Option*) { return true; })) {
    make_numbers_decimal(*option);
  }
  for (CLI::App* command : app.get_subcommands([](CLI::App*) { return true; })) {
    make_numbers_decimal(*command);
  }
}

}  // namespace portsvc
