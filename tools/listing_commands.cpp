// ls, info and connections: what a server holds.
#include <fmt/core.h>

#include <map>
#include <optional>

#include "idl/port_codes.h"
#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/interrupt.h"
#include "tools/output.h"
#include "tools/progress.h"

namespace portsvc::tools {
namespace {

using client::PortInfo;
using Hosts = std::map<std::string, std::string>;

// --- reading

// What a server tells of one port. A name whose port has gone since the names were listed has no
// info.
struct PortRow {
  std::string name;
  std::optional<PortInfo> info;
  std::optional<unsigned int> events;  // event boxes only
  std::string host;
};

client::Result read_port(client::Connection& server, const std::string& name, PortRow& row) {
  row.name = name;
  PortInfo info;
  client::Result read = server.info(name, info);
  if (read) row.info = info;
  unsigned int count = 0;
  if (read && info.kind == PORT_EVENTBOX) {
    read = server.count(name, count);
    if (read) row.events = count;
  }
  // A port that has gone is no failure.
  return result_text(read.code()) ? client::Result() : read;
}

Hosts read_hosts(Session& session) {
  Hosts hosts;
  session.check("list connections", session.server().hosts(hosts));
  return hosts;
}

client::Result read_ports(client::Connection& server, std::vector<PortRow>& rows) {
  std::vector<std::string> names;
  std::vector<std::string> boxes;
  if (const auto listed = server.list(names, boxes); !listed) return listed;
  Hosts hosts;
  if (const auto listed = server.hosts(hosts); !listed) return listed;
  names.insert(names.end(), boxes.begin(), boxes.end());
  Progress progress("ports", names.size(), false);
  for (const std::string& name : names) {
    throw_if_interrupted();
    PortRow& row = rows.emplace_back();
    if (const auto read = read_port(server, name, row); !read) return read;
    row.host = hosts[name];
    progress.reached(rows.size());
  }
  return {};
}

// The owner of a proxy connects at the main server; its access mode is known only there.
std::string owner_text(const PortInfo& info) {
  if (!info.owner_connected) return "-";
  if (info.owner_access == ACCESS_WAIT) return "wait";
  return info.owner_access == ACCESS_SELECT ? "select" : "yes";
}

Json port_json(const PortRow& row) {
  Json object{{"name", row.name}};
  if (!row.info) return object;
  object["kind"] = kind_name(row.info->kind);
  object["kind_code"] = row.info->kind;
  object["port_id"] = row.info->port_id;
  object["owner_connected"] = row.info->owner_connected;
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
    const PortInfo& info = *row.info;
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

ServerPorts read_server(const Session& session, const std::string& server) {
  ServerPorts read;
  read.server = server;
  try {
    client::Connection connection = session.connect(server);
    const client::Result listed = read_ports(connection, read.rows);
    if (!listed) read.problem = connection.explain(listed);
  } catch (const client::Error& error) {
    read.problem = error.what();
  }
  return read;
}

std::string cell(const PortRow& row) {
  if (!row.info) return "?";
  std::string text = fmt::format("{} {}", kind_name(row.info->kind), row.info->port_id);
  if (row.info->owner_connected) text += " owner:" + owner_text(*row.info);
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
  for (const auto& server : session.servers()) servers.push_back(read_server(session, server.name));
  if (servers.empty()) {
    throw Unreachable(client::not_listed_text(session.client_options(), "servers"));
  }
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
    warn(with_options(server.problem));
    silent += (silent.empty() ? "" : ", ") + server.server;
  }
  if (!silent.empty()) throw Unreachable("the list lacks the ports of " + silent);
}

void list(Session& session, const ListOptions& options) {
  if (options.all) return list_all(session);
  std::vector<PortRow> rows;
  session.check("list ports", read_ports(session.server(), rows));
  print_rows(rows, session.options().json);
}

// --- info and connections

struct NameOptions {
  std::string name;
};

void describe_name(CLI::App& command, NameOptions& options) {
  command.add_option("NAME", options.name, "The port")->required();
}

void info(Session& session, const NameOptions& options) {
  client::Connection& server = session.server();
  PortInfo described;
  session.check("look up " + options.name, server.info(options.name, described));
  PortRow row;
  session.check("look up " + options.name, read_port(server, options.name, row));
  row.host = read_hosts(session)[options.name];
  if (session.options().json) {
    print_json(port_json(row));
  } else {
    print_rows({row}, false);
  }
}

void connections(Session& session, const NoOptions&) {
  const Hosts hosts = read_hosts(session);
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
