#include "tools/session.h"

#include <fmt/core.h>

#include "tools/errors.h"

namespace portsvc::tools {

client::Options Session::client_options() const {
  client::Options options;
  options.max_message = options_.max_message;
  options.call_timeout = std::chrono::seconds(options_.call_timeout);
  options.reconnect = goes_on_;
  options.tls = {options_.tls.authorities, options_.tls.key};
  options.directory = options_.directory;
  options.naming = options_.naming;
  options.realm = options_.realm;
  options.trace = options_.trace;
  return options;
}

client::Connection& Session::server() {
  if (server_) return *server_;
  client::Options options = client_options();
  options.on_lost = [this](client::Result why) {
    warn(with_options(server_->explain(why)) + "; trying again");
  };
  options.on_found = [] { warn("connected again"); };
  server_.emplace(options_.server, options);
  watch_.emplace([this] { server_->cancel(); });
  return *server_;
}

client::Connection Session::connect(const std::string& server) const {
  return client::Connection(server, client_options());
}

void Session::check(const std::string& what, client::Result result) {
  if (result) return;
  if (result == client::failure::cancelled) throw Interrupted();
  if (result_text(result.code())) result.check(what);
  throw client::Error(server().explain(result), result);
}

std::vector<client::ListedServer> Session::servers() const {
  if (!has_directory()) {
    throw UsageError("this takes a directory of servers: --directory FILE or --naming REF");
  }
  return client::servers(client_options());
}

}  // namespace portsvc::tools
