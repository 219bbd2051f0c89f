// ls, info and connections: what a server holds.
#include <fmt/core.h>

#include <map>
#include <optional>

#include "idl/port_codes.h"
#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/failures.h"
#include "tools/interrupt.h"
#include "tools/output.h"
#include "tools/progress.h"

namespace portsvc::tools {
namespace {

using Varo::DT_PORT_SVC::Port_Factory_ptr;
using Varo::DT_PORT_SVC::Port_Factory_var;
using Varo::DT_PORT_SVC::PORT_INFO;

// --- reading

// What a server tells of one port. A name whose port has gone since the names were listed has no
// info.
struct PortRow {
  std::string name;
  std::optional<PORT_INFO> info;
  std::optional<unsigned int> events;  // event boxes only
  std::string host;
};

PortRow read_port(Port_Factory_ptr server, const std::string& name,
                  const std::map<std::string, std::string>& hosts) {
  PortRow row;
  row.name = name;
  PORT_INFO info{};
  if (server->get_port_info(name.c_str(), info) != result::ok) return row;
  row.info = info;
  CORBA::ULong count = 0;
  if (info.kind == PORT_EVENTBOX && server->event_count(name.c_str(), count) == result::ok) {
    row.events = count;
  }
  const auto host = hosts.find(name);
  if (host != hosts.end()) row.host = host->second;
  return row;
}

std::map<std::string, std::string> read_hosts(Port_Factory_ptr server) {
  Varo::DT_PORT_SVC::ConnectionSeq_var list;
  check("list connections", server->current_connection(list.out()));
  std::map<std::string, std::string> hosts;
  for (CORBA::ULong i = 0; i < list->length(); ++i) {
    hosts.emplace(list[i].port_name.in(), list[i].host.in());
  }
  return hosts;
}

std::vector<PortRow> read_ports(Port_Factory_ptr server) {
  Varo::STRING_LIST_var ports;
  Varo::STRING_LIST_var boxes;
  check("list ports", server->patch_object_name(ports.out(), boxes.out()));
  const auto hosts = read_hosts(server);
  std::vector<PortRow> rows;
  Progress progress("ports", std::uint64_t{ports->length()} + boxes->length(), false);
  for (const Varo::STRING_LIST* names : {&ports.in(), &boxes.in()}) {
    for (CORBA::ULong i = 0; i < names->length(); ++i) {
      throw_if_interrupted();
      rows.push_back(read_port(server, (*names)[i].in(), hosts));
      progress.reached(rows.size());
    }
  }
  return rows;
}

// The owner of a proxy connects at the main server; its access mode is known only there.
std::string owner_text(const PORT_INFO& info) {
  if (info.owner_connected == 0) return "-";
  if (info.owner_access == ACCESS_WAIT) return "wait";
  return info.owner_access == ACCESS_SELECT ? "select" : "yes";
}

Json port_json(const PortRow& row) {
  Json object{{"name", row.name}};
  if (!row.info) return object;
  object["kind"] = kind_name(row.info->kind);
  object["kind_code"] = row.info->kind;
  object["port_id"] = row.info->port_id;
  object["owner_connected"] = row.info->owner_connected != 0;
  object["owner_access"] = row.info->owner_access;
  object["limit"] = row.info->limit;
  if (row.events) object["events"] = *row.events;
  object["host"] = row.host;
  return object;
}

Json rows_json(const std::vector<PortRow>& rows) {
  Json list = Json::array();
  for (const PortRow& row : rows) list.push_back(port_json(row));
  return list;
}

void print_rows(const std::vector<PortRow>& rows, bool json) {
  if (json) return print_json(rows_json(rows));
  Table table({"NAME", "KIND", "ID", "OWNER", "LIMIT", "EVENTS", "HOST"});
  for (const PortRow& row : rows) {
    if (!row.info) {
      table.add({printable(row.name), "?", "?", "?", "?", "?", "?"});
      continue;
    }
    const PORT_INFO& info = *row.info;
    table.add({printable(row.name), std::string(kind_name(info.kind)), std::to_string(info.port_id),
               owner_text(info), std::to_string(info.limit),
               row.events ? std::to_string(*row.events) : "-",
               row.host.empty() ? "-" : printable(row.host)});
  }
  table.print();
}

// --- ls

struct ListOptions {
  bool all = false;
};

void describe_list(CLI::App& command, ListOptions& options) {
  command.add_flag("--all", options.all,
                   "The ports of every server of the directory, side by side");
}

// What one server of the directory holds, or why it does not tell.
struct ServerPorts {
  std::string server;
  std::vector<PortRow> rows;
  std::string problem;
};

ServerPorts read_server(Session& session, const std::string& server) {
  ServerPorts read;
  read.server = server;
  Port_Factory_var factory;
  try {
    factory = session.resolve(server);
    read.rows = read_ports(factory);
  } catch (const CORBA::Exception& exception) {
    read.problem = failure_text(server, factory.in(), session.options(), exception);
  } catch (const std::runtime_error& error) {
    read.problem = error.what();
  }
  return read;
}

std::string cell(const PortRow& row) {
  if (!row.info) return "?";
  std::string text = fmt::format("{} {}", kind_name(row.info->kind), row.info->port_id);
  if (row.info->owner_connected != 0) text += " owner:" + owner_text(*row.info);
  if (row.events) text += fmt::format(" events:{}", *row.events);
  return text;
}

void print_side_by_side(const std::vector<ServerPorts>& servers) {
  std::vector<std::string> header{"NAME"};
  std::map<std::string, std::vector<std::string>> cells;  // by port, one for each server
  for (std::size_t i = 0; i < servers.size(); ++i) {
    header.push_back(printable(servers[i].server));
    for (const PortRow& row : servers[i].rows) {
      auto& line = cells[row.name];
      line.resize(servers.size(), "-");
      line[i] = cell(row);
    }
  }
  Table table(std::move(header));
  for (auto& [name, line] : cells) {
    for (std::size_t i = 0; i < servers.size(); ++i) {
      if (!servers[i].problem.empty()) line[i] = "?";
    }
    line.insert(line.begin(), printable(name));
    table.add(std::move(line));
  }
  table.print();
}

void list_all(Session& session) {
  std::vector<ServerPorts> servers;
  for (const char* role : {role_main, role_sub}) {
    for (const auto& name : session.directory().servers(role, session.options().realm)) {
      servers.push_back(read_server(session, name));
    }
  }
  if (servers.empty()) throw Unreachable(session.directory_problem("servers"));
  if (session.options().json) {
    Json list = Json::array();
    for (const ServerPorts& server : servers) {
      Json object{{"server", server.server}};
      if (!server.problem.empty()) object["problem"] = server.problem;
      object["ports"] = rows_json(server.rows);
      list.push_back(std::move(object));
    }
    print_json(list);
  } else {
    print_side_by_side(servers);
  }
  flush_output();
  std::string silent;
  for (const ServerPorts& server : servers) {
    if (server.problem.empty()) continue;
    warn(server.problem);
    silent += (silent.empty() ? "" : ", ") + server.server;
  }
  if (!silent.empty()) throw Unreachable("the list lacks the ports of " + silent);
}

void list(Session& session, const ListOptions& options) {
  if (options.all) return list_all(session);
  print_rows(read_ports(session.server()), session.options().json);
}

// --- info and connections

struct NameOptions {
  std::string name;
};

void describe_name(CLI::App& command, NameOptions& options) {
  command.add_option("NAME", options.name, "The port")->required();
}

void info(Session& session, const NameOptions& options) {
  Port_Factory_ptr server = session.server();
  PORT_INFO described{};
  check("look up " + options.name, server->get_port_info(options.name.c_str(), described));
  const PortRow row = read_port(server, options.name, read_hosts(server));
  if (session.options().json) {
    print_json(port_json(row));
  } else {
    print_rows({row}, false);
  }
}

void connections(Session& session, const NoOptions&) {
  const auto hosts = read_hosts(session.server());
  if (session.options().json) {
    Json list = Json::array();
    for (const auto& [port, host] : hosts) list.push_back({{"port", port}, {"host", host}});
    print_json(list);
    return;
  }
  Table table({"PORT", "HOST"});
  for (const auto& [port, host] : hosts) table.add({printable(port), printable(host)});
  table.print();
}

}  // namespace

void add_listing_commands(Commands& commands) {
  CLI::App& app = commands.app;
  commands.add<ListOptions>(app, "ls",
                            "List ports and event boxes. A sub server lists those of its main "
                            "server while it reaches it",
                            "--directory plant.ini ls --all", describe_list, list);
  commands.add<NameOptions>(app, "info", "Describe one port", "info orders --json", describe_name,
                            info);
  commands.add<NoOptions>(app, "connections", "List the ports that have a host text", "connections",
                          describe_nothing, connections);
}

}  // namespace portsvc::tools
