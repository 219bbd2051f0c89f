#include "tools/errors.h"

#include <fmt/core.h>

#include <cstdio>

#include "idl/port_codes.h"

namespace portsvc::tools {

int status_of(client::Result result) {
  if (result_text(result.code())) return status::failed;
  const bool usage =
      result == client::failure::bad_address || result == client::failure::bad_options;
  return usage ? status::bad_usage : status::unreachable;
}

std::string with_options(const std::string& line) {
  struct Hint {
    const char* word;
    const char* options;
  };
  for (const Hint& hint : {Hint{"TLS", "--tls-ca, --tls-key"},
                           Hint{"takes a directory or a naming service", "--directory, --naming"},
                           Hint{"no answer within the time of a call", "--call-timeout"}}) {
    if (line.find(hint.word) != std::string::npos)
      return fmt::format("{} ({})", line, hint.options);
  }
  return line;
}

void warn(const std::string& message) { fmt::print(stderr, "portctl: {}\n", message); }

}  // namespace portsvc::tools
