#include "tools/errors.h"

#include <fmt/core.h>

#include <cstdio>

#include "idl/port_codes.h"

namespace portsvc::tools {

std::string code_text(unsigned int code) {
  const ResultText* text = result_text(code);
  if (!text) return fmt::format("{} unknown result code", code);
  return fmt::format("{} {}: {}", code, text->name, text->meaning);
}

ResultError::ResultError(const std::string& what, unsigned int code)
    : std::runtime_error(what + ": " + code_text(code)), code_(code) {}

void check(const std::string& what, unsigned int code) {
  if (code != result::ok) throw ResultError(what, code);
}

void warn(const std::string& message) { fmt::print(stderr, "portctl: {}\n", message); }

}  // namespace portsvc::tools
