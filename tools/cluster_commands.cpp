// master, subs, move and refresh: main and sub servers.
#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "idl/port_codes.h"
#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/interrupt.h"
#include "tools/output.h"

namespace portsvc::tools {
namespace {

using Varo::DT_PORT_SVC::Port_Factory;
using Varo::DT_PORT_SVC::Port_Factory_ptr;
using Varo::DT_PORT_SVC::Port_Factory_var;
using Varo::DT_PORT_SVC::PORT_INFO;

struct MasterOptions {
  std::string port;
};

void describe_master(CLI::App& command, MasterOptions& options) {
  command.add_option("NAME", options.port, "The port")->required();
}

void master(Session& session, const MasterOptions& options) {
  CORBA::String_var server;
  check("ask for the server that keeps " + options.port,
        session.server()->inquire_master(options.port.c_str(), server.out()));
  if (session.options().json) {
    print_json({{"port", options.port}, {"master", server.in()}});
  } else {
    write_output(printable(server.in()) + "\n");
  }
}

void subs(Session& session, const NoOptions&) {
  Varo::STRING_LIST_var list;
  check("list sub servers", session.server()->get_remote_sub(list.out()));
  Json names = Json::array();
  for (CORBA::ULong i = 0; i < list->length(); ++i) names.push_back(list[i].in());
  if (session.options().json) return print_json(names);
  for (const Json& name : names) {
    write_output(printable(name.get_ref<const std::string&>()) + "\n");
  }
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
  const GlobalOptions& options = session.options();
  if (!options.directory.empty() || !options.naming.empty()) {
    for (const char* role : {role_main, role_sub}) {
      const auto names = session.directory().servers(role, options.realm);
      if (std::find(names.begin(), names.end(), name) != names.end()) return true;
    }
    return false;
  }
  Varo::STRING_LIST_var list;
  const unsigned int code = session.server()->get_remote_sub(list.out());
  if (code != result::ok) return false;  // a main server without sub servers
  for (CORBA::ULong i = 0; i < list->length(); ++i) {
    if (name == list[i].in()) return true;
  }
  return list->length() == 0;
}

void move(Session& session, const MoveOptions& options) {
  if (!options.force && !is_known(session, options.to)) {
    throw Failure(fmt::format(
        "move {}: no server '{}' is known (see: portctl subs); --force moves it all the same",
        options.port, options.to));
  }
  check(fmt::format("move {} to {}", options.port, options.to),
        session.server()->force_toslave(options.to.c_str(), options.port.c_str()));
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

std::optional<PORT_INFO> port_info(Port_Factory_ptr server, const std::string& name) {
  PORT_INFO info{};
  if (server->get_port_info(name.c_str(), info) != result::ok) return std::nullopt;
  return info;
}

// A sub server lists no consumers and says so with success; a main server without any answers a
// code of its own.
bool is_sub_server(Port_Factory_ptr server) {
  Varo::STRING_LIST_var list;
  return server->get_remote_sub(list.out()) == result::ok && list->length() == 0;
}

// Without its main server a sub server could not clone again what is deleted. A main server that
// has just come back is found within a few beats of the sub server's probe.
void wait_for_main_server(Session& session, Port_Factory_ptr sub) {
  using std::chrono::steady_clock;
  const auto end = steady_clock::now() + std::chrono::seconds(session.options().call_timeout);
  for (;;) {
    CORBA::String_var unused;
    if (sub->inquire_master("", unused.out()) != result::failed) return;
    if (steady_clock::now() >= end) {
      throw ResultError("the sub server does not reach its main server", result::failed);
    }
    throw_if_interrupted();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
}

// What was done about one proxy.
struct Refreshed {
  std::string port;
  CORBA::ULong old_id = 0;
  CORBA::ULong new_id = 0;
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
CORBA::ULong clone_again(Port_Factory_ptr sub, const std::string& name) {
  check("delete the proxy " + name, sub->delete_port(name.c_str()));
  check("clone " + name + " from the main server",
        static_cast<unsigned int>(sub->exist(name.c_str())));
  const auto info = port_info(sub, name);
  return info ? info->port_id : 0;
}

void refresh(Session& session, const RefreshOptions& options) {
  Port_Factory_ptr sub = session.server();
  if (!is_sub_server(sub)) {
    throw Failure("refresh is for sub servers: this server is a main server");
  }
  wait_for_main_server(session, sub);
  Port_Factory_var main = Port_Factory::_nil();
  if (!options.main.empty()) main = session.resolve(options.main);

  Varo::STRING_LIST_var ports;
  Varo::STRING_LIST_var boxes;
  check("list ports", sub->patch_object_name(ports.out(), boxes.out()));
  std::vector<Refreshed> done;
  try {
    for (CORBA::ULong i = 0; i < ports->length(); ++i) {
      throw_if_interrupted();
      const std::string name = ports[i].in();
      const auto copy = port_info(sub, name);
      if (!copy || copy->kind != PORT_SLAVE) continue;
      if (!CORBA::is_nil(main.in())) {
        const auto original = port_info(main, name);
        if (original && original->port_id == copy->port_id) continue;
      }
      done.push_back({name, copy->port_id, clone_again(sub, name)});
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
