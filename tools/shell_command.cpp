#include "tools/shell_command.h"

#include <optional>
#include <system_error>
#include <utility>

#include "tools/errors.h"
#include "tools/interrupt.h"

namespace portsvc::tools {

CommandResult run_shell_command(const std::string& command, const std::string& input) {
  try {
    std::optional<CommandResult> done = run_filter(command, input, interrupt_fd());
    if (!done) throw Interrupted();
    return std::move(*done);
  } catch (const std::system_error& failure) {
    throw Failure(failure.what());
  }
}

}  // namespace portsvc::tools
