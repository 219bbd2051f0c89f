#include "cli/peer_options.h"

#include <CLI/CLI.hpp>

namespace portsvc::cli {

void describe_peer_options(CLI::App& app, PeerOptions& options) {
  auto* const directory = app.add_option("--directory", options.directory,
                                         "Directory of servers: a file in which they are listed")
                              ->option_text("FILE");
  app.add_option("--naming", options.naming,
                 "Directory of servers: a naming service, corbaloc::HOST:2809/NameService")
      ->option_text("REF")
      ->excludes(directory);
  app.add_option("--realm", options.realm, "Realm in which servers are looked up (default: none)");
  app.add_option("--max-message", options.max_message, "Largest message, sent or received")
      ->option_text("BYTES")
      ->capture_default_str()
      ->check(CLI::Range(std::uint64_t{8192}, std::uint64_t{0x7fffffff}));
  const auto describe_timeout = [&](const char* name) {
    return app
        .add_option(name, options.call_timeout,
                    "Seconds after which a call to a server that is no wait has failed")
        ->option_text("SECONDS")
        ->capture_default_str()
        ->check(CLI::Range(1U, 3600U));
  };
  describe_timeout("--call-timeout");
  describe_timeout("--timeout-call")->group("");  // portctl's name for it in earlier scripts
  auto* const authorities =
      app.add_option("--tls-ca", options.tls.authorities,
                     "TLS: the certificates of the authorities that are trusted, PEM")
          ->option_text("FILE");
  auto* const key = app.add_option("--tls-key", options.tls.key,
                                   "TLS: the program's own certificate and its private key, PEM")
                        ->option_text("FILE");
  authorities->needs(key);
  key->needs(authorities);
  app.add_option("--trace", options.trace, "Trace level of the broker, on standard error")
      ->option_text("LEVEL")
      ->check(CLI::Range(0U, 40U));
}

}  // namespace portsvc::cli
