#include "middleware/owner_note.h"

#include <fmt/format.h>

#include <sstream>

#include "platform/process.h"

namespace portsvc {

OwnerNote OwnerNote::own() {
  return {program_name(), host_name(), process_id(), process_start(process_id())};
}

std::optional<OwnerNote> OwnerNote::read(const std::string& text) {
  std::istringstream words(text);
  OwnerNote note;
  std::string rest;
  if (!(words >> note.program >> note.host >> note.process >> note.started)) return {};
  if (words >> rest || note.process == 0) return {};
  return note;
}

std::string OwnerNote::text() const {
  return fmt::format("{} {} {} {}", program, host, process, started);
}

bool OwnerNote::has_ended() const {
  return host == host_name() && process_start(process) != started;
}

}  // namespace portsvc
