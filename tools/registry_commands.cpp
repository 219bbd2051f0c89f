// create, rm, exists, release, host, ping, clear and codes.
#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "idl/port_codes.h"
#include "portsvc/stubs.h"
#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/interrupt.h"
#include "tools/output.h"
#include "tools/owner.h"

namespace portsvc::tools {
namespace {

using Varo::DT_PORT_SVC::Port_Factory_ptr;

struct NameOptions {
  std::string name;
};

void describe_name(CLI::App& command, NameOptions& options) {
  command.add_option("NAME", options.name, "The port")->required();
}

struct CreateOptions {
  std::string name;
  std::string kind = "port";
  unsigned int limit = 1000;
};

const std::map<std::string, unsigned int>& kind_words() {
  static const std::map<std::string, unsigned int> words{
      {"port", PORT_MASTER}, {"box", PORT_EVENTBOX}, {"proxy", PORT_SLAVE}};
  return words;
}

unsigned int kind_code(const std::string& text) {
  const auto word = kind_words().find(text);
  if (word != kind_words().end()) return word->second;
  const bool number = !text.empty() && text.size() <= 10 &&
                      text.find_first_not_of("0123456789") == std::string::npos;
  const unsigned long long code = number ? std::stoull(text) : 0;
  if (!number || code > std::numeric_limits<std::uint32_t>::max()) {
    throw UsageError(fmt::format("'{}' is no kind: port, box, proxy or a number", text));
  }
  return static_cast<unsigned int>(code);
}

void describe_create(CLI::App& command, CreateOptions& options) {
  command.add_option("NAME", options.name, "The new port")->required();
  command
      .add_option("--kind", options.kind,
                  "port (30005), box (30006), proxy (30007) or a number. A sub server takes "
                  "30005 for a proxy and 30007 for a port of its own")
      ->option_text("KIND")
      ->capture_default_str();
  command
      .add_option("--limit", options.limit,
                  "Packets or events it keeps; beyond that the oldest is dropped")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
}

// The server would answer success and leave the port of the other kind as it is.
void refuse_other_kind(Session& session, const std::string& name, unsigned int kind) {
  std::vector<std::string> ports;
  std::vector<std::string> boxes;
  session.check("list ports", session.server().list(ports, boxes));
  const auto& others = kind == PORT_EVENTBOX ? ports : boxes;
  if (std::find(others.begin(), others.end(), name) == others.end()) return;
  throw Failure(fmt::format(
      "create {}: it exists and is {}; see: portctl info", name,
      kind == PORT_EVENTBOX ? "a packet port, no event box" : "an event box, no packet port"));
}

void create(Session& session, const CreateOptions& options) {
  if (options.name.empty()) throw UsageError("a port needs a name");
  const unsigned int kind = kind_code(options.kind);
  refuse_other_kind(session, options.name, kind);
  session.check("create " + options.name,
                session.server().create(options.name, kind, options.limit));
}

struct RemoveOptions {
  std::vector<std::string> names;
};

void describe_remove(CLI::App& command, RemoveOptions& options) {
  command.add_option("NAME", options.names, "The ports; one that does not exist is no error")
      ->required();
}

void remove(Session& session, const RemoveOptions& options) {
  for (const std::string& name : options.names) {
    session.check("remove " + name, session.server().remove(name));
  }
}

void exists(Session& session, const NameOptions& options) {
  bool found = false;
  session.check("look for " + options.name, session.server().exists(options.name, found));
  if (session.options().json) print_json({{"port", options.name}, {"exists", found}});
  if (!found) session.check("look for " + options.name, client::Result(result::unknown_name));
}

struct ReleaseOptions {
  std::string name;
  bool force = false;
};

void describe_release(CLI::App& command, ReleaseOptions& options) {
  command.add_option("NAME", options.name, "The port")->required();
  command.add_flag("--force", options.force, "Also from an owner that may still live");
}

// Frees a port whose owner died without disconnecting; what is queued stays for the next owner.
void release(Session& session, const ReleaseOptions& options) {
  client::Connection& server = session.server();
  client::PortInfo info;
  session.check("look for " + options.name, server.info(options.name, info));
  if (info.owner_connected && !options.force) {
    std::optional<client::OwnerWord> word;
    session.check("look for the owner of " + options.name, server.owner_word(options.name, word));
    if (!word || !word->ended) {
      throw Failure(fmt::format(
          "release {}: {} owns it and may still live; it would lose the port. If it is dead, say "
          "--force",
          options.name, owner_text(word)));
    }
  }
  session.check("release " + options.name, server.release(options.name));
}

struct HostOptions {
  std::string name;
  std::string host;
};

void describe_host(CLI::App& command, HostOptions& options) {
  command.add_option("NAME", options.name, "The port")->required();
  command.add_option("TEXT", options.host, "The host text; \"\" takes it away")->required();
}

void set_host(Session& session, const HostOptions& options) {
  session.check("set the host of " + options.name,
                session.server().set_host(options.name, options.host));
}

struct PingOptions {
  unsigned int count = 1;
};

void describe_ping(CLI::App& command, PingOptions& options) {
  command.add_option("--count", options.count, "Calls to make, one after the other")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
}

void ping(Session& session, const PingOptions& options) {
  using Milliseconds = std::chrono::duration<double, std::milli>;
  client::Connection& server = session.server();
  Json list = Json::array();
  for (unsigned int i = 0; i < options.count; ++i) {
    throw_if_interrupted();
    const auto start = std::chrono::steady_clock::now();
    session.check("ping", server.ping());
    const Milliseconds taken = std::chrono::steady_clock::now() - start;
    if (session.options().json) {
      list.push_back(taken.count());
    } else {
      write_output(fmt::format("round trip {:.3f} ms\n", taken.count()));
    }
  }
  if (session.options().json) print_json({{"round_trip_ms", list}});
}

struct ClearOptions {
  bool yes = false;
};

void describe_clear(CLI::App& command, ClearOptions& options) {
  command.add_flag("--yes", options.yes, "Yes, really all of them");
}

void clear(Session& session, const ClearOptions& options) {
  if (!options.yes) {
    throw UsageError("clear removes every port, event box and subscription: say --yes");
  }
  session.check("clear", client::call(session.server(), [](Port_Factory_ptr server) {
                  server->clearAll();
                  return result::ok;
                }));
}

struct Code {
  std::string_view subject;
  unsigned int code;
  std::string_view name;
  std::string_view meaning;
};

void codes(Session& session, const NoOptions&) {
  std::vector<Code> all;
  all.reserve(result_texts.size() + 7);
  for (const ResultText& text : result_texts) {
    all.push_back({"result", text.code, text.name, text.meaning});
  }
  for (const auto& [kind, meaning] :
       {std::pair{PORT_MASTER, "packet port whose owner this server serves"},
        std::pair{PORT_EVENTBOX, "box of events"},
        std::pair{PORT_SLAVE, "proxy for the port of the main server"}}) {
    all.push_back({"kind", kind, kind_name(kind), meaning});
  }
  all.push_back({"mode", CONNECT_CLIENT, "CONNECT_CLIENT", "connect as a client"});
  all.push_back({"mode", CONNECT_OWNER, "CONNECT_OWNER", "connect as the owner"});
  all.push_back(
      {"access", ACCESS_SELECT, "ACCESS_SELECT", "takes do not block; the port can be selected"});
  all.push_back({"access", ACCESS_WAIT, "ACCESS_WAIT", "takes block until their time-out"});

  if (session.options().json) {
    Json list = Json::array();
    for (const Code& code : all) {
      list.push_back({{"subject", code.subject},
                      {"code", code.code},
                      {"name", code.name},
                      {"meaning", code.meaning}});
    }
    print_json(list);
    return;
  }
  Table table({"SUBJECT", "CODE", "NAME", "MEANING"});
  for (const Code& code : all) {
    table.add({std::string(code.subject), std::to_string(code.code), std::string(code.name),
               std::string(code.meaning)});
  }
  table.print();
}

}  // namespace

void add_registry_commands(Commands& commands) {
  CLI::App& app = commands.app;
  commands.add<CreateOptions>(app, "create",
                              "Create a port; on a main server an existing one stays as it is",
                              "create orders --limit 100", describe_create, create);
  commands.add<RemoveOptions>(app, "rm", "Delete ports", "rm orders alarms", describe_remove,
                              remove);
  commands.add<NameOptions>(app, "exists", "Succeed when there is a port of that name",
                            "exists orders && echo yes", describe_name, exists);
  commands.add<ReleaseOptions>(app, "release",
                               "Disconnect a port's owner, for one that died without doing so",
                               "release orders", describe_release, release);
  CLI::App* host = app.add_subcommand("host", "The host text of a port");
  host->require_subcommand(1);
  commands.add<HostOptions>(*host, "set", "Store the host text; it goes when the owner leaves",
                            "host set orders press-7", describe_host, set_host);
  commands.add<PingOptions>(app, "ping", "Measure the round trip to the server", "ping --count 5",
                            describe_ping, ping);
  commands.add<ClearOptions>(app, "clear", "Remove all ports, event boxes and subscriptions",
                             "clear --yes", describe_clear, clear);
  commands.add<NoOptions>(app, "codes", "List the result codes, kinds and modes", "codes",
                          describe_nothing, codes);
}

}  // namespace portsvc::tools
