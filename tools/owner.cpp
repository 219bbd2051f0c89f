#include "tools/owner.h"

#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <cstdint>

#include "idl/port_codes.h"

namespace portsvc::tools {

void describe_owner(CLI::App& command, OwnerOptions& options) {
  command.add_flag("--take-over", options.take_over,
                   "Take the port from an owner of this host that has ended");
  command
      .add_option("--take-over-after", options.take_over_after,
                  "Take it from any other owner too, after so many seconds")
      ->option_text("SECONDS");
}

client::OwnerOptions library_options(const OwnerOptions& options, const std::string& port) {
  client::OwnerOptions library;
  library.take_over = options.take_over;
  if (options.take_over_after) {
    library.take_over_after = std::chrono::seconds(*options.take_over_after);
  }
  library.on_take_over = [port](const std::string& from) {
    warn(fmt::format("took {} over from {}", port, from));
  };
  return library;
}

std::string owner_text(const std::optional<client::OwnerWord>& word) {
  return word ? word->text() : "an owner that left no word";
}

void refuse_owned(Session& session, const OwnerOptions& options, const std::string& port) {
  std::optional<client::OwnerWord> word;
  (void)session.server().owner_word(port, word);
  const bool asked = options.take_over || options.take_over_after;
  const client::Result exists(result::owner_exists);
  throw client::Error(fmt::format("own {}, which {} owns ({}): {}", port, owner_text(word),
                                  asked ? "--take-over-after S takes it all the same"
                                  : word && word->ended ? "it has ended: --take-over"
                                                        : "see: --take-over, portctl release",
                                  exists.text()),
                      exists);
}

void describe_reconnect(CLI::App& command, Reconnect& reconnect) {
  reconnect.on = true;
  command.add_flag_function(
      "--reconnect,!--no-reconnect",
      [&reconnect](std::int64_t on) {
        reconnect = {on > 0, on > 0};
      },
      "Go on when the server is lost and comes back (the default); said in so many words, also "
      "wait for it at first");
}

}  // namespace portsvc::tools
