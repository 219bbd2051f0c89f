// master, subs, move and refresh: main and sub servers.
#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "idl/port_codes.h"
#include "portsvc/stubs.h"
#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/interrupt.h"
#include "tools/interrupt_watch.h"
#include "tools/output.h"

namespace portsvc::tools {
namespace {

using Varo::DT_PORT_SVC::Port_Factory_ptr;

struct MasterOptions {
  std::string port;
};

void describe_master(CLI::App& command, MasterOptions& options) {
  command.add_option("NAME", options.port, "The port")->required();
}

void master(Session& session, const MasterOptions& options) {
  CORBA::String_var server;
  const auto ask = [&](Port_Factory_ptr main) -> unsigned int {
    return main->inquire_master(options.port.c_str(), server.out());
  };
  session.check("ask for the server that keeps " + options.port,
                client::call(session.server(), ask));
  if (session.options().json) {
    print_json({{"port", options.port}, {"master", server.in()}});
  } else {
    write_output(printable(server.in()) + "\n");
  }
}

client::Result list_subs(Session& session, std::vector<std::string>& names) {
  return client::call(session.server(), [&](Port_Factory_ptr server) -> unsigned int {
    Varo::STRING_LIST_var list;
    const unsigned int code = server->get_remote_sub(list.out());
    for (CORBA::ULong i = 0; i < list->length(); ++i) names.emplace_back(list[i].in());
    return code;
  });
}

void subs(Session& session, const NoOptions&) {
  std::vector<std::string> names;
  session.check("list sub servers", list_subs(session, names));
  if (session.options().json) return print_json(names);
  for (const std::string& name : names) write_output(printable(name) + "\n");
}

struct MoveOptions {
  std::string port;
  std::string to;
  bool force = false;
};

void describe_move(CLI::App& command, MoveOptions& options) {
  command.add_option("NAME", options.port, "The port")->required();
  command.add_option("--to", options.to, "The name of the server that is to keep the port")
      ->option_text("SERVER")
      ->required();
  command.add_flag("--force", options.force, "Also to a server that is not known");
}

// A main server knows its sub servers; a sub server knows nobody, so there only a directory helps.
bool is_known(Session& session, const std::string& name) {
  std::vector<std::string> names;
  if (session.has_directory()) {
    for (const auto& server : session.servers()) names.push_back(server.name);
  } else {
    const client::Result listed = list_subs(session, names);
    if (listed == result::no_consumers) return false;  // a main server without sub servers
    session.check("list sub servers", listed);
    if (names.empty()) return true;
  }
  return std::find(names.begin(), names.end(), name) != names.end();
}

void move(Session& session, const MoveOptions& options) {
  if (!options.force && !is_known(session, options.to)) {
    throw Failure(fmt::format(
        "move {}: no server '{}' is known (see: portctl subs); --force moves it all the same",
        options.port, options.to));
  }
  const auto force = [&](Port_Factory_ptr server) -> unsigned int {
    return server->force_toslave(options.to.c_str(), options.port.c_str());
  };
  session.check(fmt::format("move {} to {}", options.port, options.to),
                client::call(session.server(), force));
}

// --- refresh

struct RefreshOptions {
  std::string main;
};

void describe_refresh(CLI::App& command, RefreshOptions& options) {
  command
      .add_option("--main", options.main,
                  "The main server, by reference or name: only proxies whose port id differs "
                  "from the one there are made anew")
      ->option_text("SERVER");
}

// A sub server lists no consumers and says so with success; a main server without any answers a
// code of its own.
bool is_sub_server(Session& session) {
  std::vector<std::string> names;
  const client::Result listed = list_subs(session, names);
  if (listed != result::no_consumers) session.check("list sub servers", listed);
  return listed && names.empty();
}

// Without its main server a sub server could not clone again what is deleted. A main server that
// has just come back is found within a few beats of the sub server's probe.
void wait_for_main_server(Session& session) {
  using std::chrono::steady_clock;
  const auto end = steady_clock::now() + std::chrono::seconds(session.options().call_timeout);
  const auto ask = [](Port_Factory_ptr sub) -> unsigned int {
    CORBA::String_var unused;
    return sub->inquire_master("", unused.out());
  };
  for (;;) {
    const client::Result asked = client::call(session.server(), ask);
    const bool unreached = asked == result::failed;
    if (!unreached && !result_text(asked.code())) session.check("ask for the main server", asked);
    if (!unreached) return;
    if (steady_clock::now() >= end) {
      session.check("the sub server does not reach its main server", asked);
    }
    pause_for(std::chrono::milliseconds(200));
  }
}

// What was done about one proxy.
struct Refreshed {
  std::string port;
  unsigned int old_id = 0;
  unsigned int new_id = 0;
};

void print_refreshed(const std::vector<Refreshed>& done, bool json) {
  if (json) {
    Json list = Json::array();
    for (const Refreshed& row : done) {
      list.push_back({{"port", row.port}, {"old_id", row.old_id}, {"new_id", row.new_id}});
    }
    print_json(list);
    return;
  }
  Table table({"PORT", "OLD ID", "NEW ID"});
  for (const Refreshed& row : done) {
    table.add({printable(row.port), std::to_string(row.old_id), std::to_string(row.new_id)});
  }
  table.print();
}

// The new id of a proxy that is deleted and, being named again, cloned anew.
unsigned int clone_again(Session& session, const std::string& name) {
  client::Connection& sub = session.server();
  session.check("delete the proxy " + name, sub.remove(name));
  const client::Result unknown(result::unknown_name);
  bool cloned = false;
  const client::Result named = sub.exists(name, cloned);
  session.check("clone " + name + " from the main server", named && !cloned ? unknown : named);
  client::PortInfo info;
  return sub.info(name, info) ? info.port_id : 0;
}

void refresh(Session& session, const RefreshOptions& options) {
  client::Connection& sub = session.server();
  if (!is_sub_server(session)) {
    throw Failure("refresh is for sub servers: this server is a main server");
  }
  wait_for_main_server(session);
  std::optional<client::Connection> main;
  if (!options.main.empty()) main.emplace(session.connect(options.main));

  std::vector<std::string> ports;
  std::vector<std::string> boxes;
  session.check("list ports", sub.list(ports, boxes));
  std::vector<Refreshed> done;
  try {
    for (const std::string& name : ports) {
      throw_if_interrupted();
      client::PortInfo copy;
      if (!sub.info(name, copy) || copy.kind != PORT_SLAVE) continue;
      client::PortInfo original;
      if (main && main->info(name, original) && original.port_id == copy.port_id) continue;
      done.push_back({name, copy.port_id, clone_again(session, name)});
    }
  } catch (...) {
    print_refreshed(done, session.options().json);
    throw;
  }
  print_refreshed(done, session.options().json);
}

}  // namespace

void add_cluster_commands(Commands& commands) {
  CLI::App& app = commands.app;
  commands.add<MasterOptions>(app, "master", "Print the server that keeps a port", "master orders",
                              describe_master, master);
  commands.add<NoOptions>(app, "subs", "List the sub servers that the main server knows", "subs",
                          describe_nothing, subs);
  commands.add<MoveOptions>(app, "move",
                            "Let a server keep a port: a sub server then serves it itself, a main "
                            "server records it",
                            "--server 10.0.0.7:9700 move orders --to line7", describe_move, move);
  commands.add<RefreshOptions>(
      app, "refresh",
      "On a sub server: clone its proxies anew after the main server came back with other port "
      "ids. Clients and owners of these proxies connect again",
      "--server 10.0.0.7:9700 refresh --main 10.0.0.1:9700", describe_refresh, refresh);
}

}  // namespace portsvc::tools
