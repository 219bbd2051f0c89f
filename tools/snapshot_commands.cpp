// snapshot save, load, download and show.
#include <fmt/format.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "idl/port_codes.h"
#include "persistence/snapshot_file.h"
#include "platform/output_file.h"
#include "portsvc/stubs.h"
#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/input.h"
#include "tools/interrupt.h"
#include "tools/output.h"
#include "tools/progress.h"

namespace portsvc::tools {
namespace {

using Varo::DT_PORT_SVC::Port_Factory_ptr;

void save(Session& session, const NoOptions&) {
  session.check("save the snapshot", session.server().save_snapshot());
}

void load(Session& session, const NoOptions&) {
  const auto load = [](Port_Factory_ptr server) {
    return static_cast<unsigned int>(server->load_snapshot());
  };
  session.check("load the snapshot", client::call(session.server(), load));
}

struct FileOptions {
  std::string file;
};

std::string read_snapshot(Session& session) {
  std::string bytes;
  std::optional<Progress> shown;
  const client::Result read =
      session.server().download_snapshot(bytes, [&](std::uint64_t here, std::uint64_t all) {
        if (!shown) shown.emplace("bytes", all, false);
        shown->reached(here);
        return interrupted() == 0;
      });
  session.check("read the snapshot", read);
  return bytes;
}

void describe_download(CLI::App& command, FileOptions& options) {
  command.add_option("FILE", options.file, "Where to write it; - is standard output")->required();
}

void download(Session& session, const FileOptions& options) {
  write_output_file(options.file, read_snapshot(session));
}

std::vector<std::string> problems(const snapshot::Content& content) {
  std::vector<std::string> found;
  // A file that breaks off before its second section has no marker there.
  const bool has_subscriptions = content.problem.empty() || content.subscriptions_marker != 0;
  if (content.ports_marker != snapshot::ports_marker ||
      (has_subscriptions && content.subscriptions_marker != snapshot::subscriptions_marker)) {
    found.push_back(fmt::format("the section markers are {} and {}, not {} and {}",
                                content.ports_marker, content.subscriptions_marker,
                                snapshot::ports_marker, snapshot::subscriptions_marker));
  }
  if (content.unreadable_records != 0) {
    found.push_back(
        fmt::format("{} records have a name without an end", content.unreadable_records));
  }
  if (!content.problem.empty()) found.push_back(content.problem);
  return found;
}

// Codes are kept signed in the file's order; -1 is the code 4294967295.
std::int32_t signed_code(std::uint32_t code) { return static_cast<std::int32_t>(code); }

void print_content_json(const snapshot::Content& content) {
  Json ports = Json::array();
  for (const auto& port : content.ports) {
    Json object{{"name", port.name},
                {"kind", kind_name(port.kind)},
                {"kind_code", port.kind},
                {"limit", port.limit}};
    if (port.kind == PORT_EVENTBOX) object["persistent"] = port.persistent;
    ports.push_back(std::move(object));
  }
  Json subscriptions = Json::array();
  for (const auto& subscription : content.subscriptions) {
    subscriptions.push_back({{"code", signed_code(subscription.code)}, {"box", subscription.name}});
  }
  print_json({{"ports", ports}, {"subscriptions", subscriptions}, {"problems", problems(content)}});
}

void print_content(const snapshot::Content& content) {
  Table ports({"NAME", "KIND", "LIMIT", "PERSISTENT"});
  for (const auto& port : content.ports) {
    const bool is_box = port.kind == PORT_EVENTBOX;
    const std::string_view kind = kind_name(port.kind);
    ports.add({printable(port.name),
               kind == "unknown" ? std::to_string(port.kind) : std::string(kind),
               std::to_string(port.limit),
               !is_box           ? "-"
               : port.persistent ? "yes"
                                 : "no"});
  }
  ports.print();
  write_output("\n");
  Table subscriptions({"CODE", "BOX"});
  for (const auto& subscription : content.subscriptions) {
    subscriptions.add(
        {std::to_string(signed_code(subscription.code)), printable(subscription.name)});
  }
  subscriptions.print();
}

void describe_show(CLI::App& command, FileOptions& options) {
  command.add_option("FILE", options.file, "The snapshot file")->required();
}

void show(Session& session, const FileOptions& options) {
  std::string bytes;
  if (!snapshot::read_file(options.file.c_str(), "rb", bytes)) {
    throw UsageError(
        fmt::format("cannot read {}: {}", options.file, std::generic_category().message(errno)));
  }
  const snapshot::Content content = snapshot::parse(bytes);
  if (session.options().json) {
    print_content_json(content);
  } else {
    print_content(content);
  }
  flush_output();
  const auto found = problems(content);
  if (!found.empty()) {
    throw Failure(fmt::format("{} is damaged: {}", options.file, fmt::join(found, "; ")));
  }
}

void subscriptions(Session& session, const NoOptions&) {
  const auto content = snapshot::parse(read_snapshot(session));
  Json list = Json::array();
  Table table({"CODE", "BOX"});
  for (const auto& subscription : content.subscriptions) {
    list.push_back({{"code", signed_code(subscription.code)}, {"box", subscription.name}});
    table.add({std::to_string(signed_code(subscription.code)), printable(subscription.name)});
  }
  if (session.options().json) {
    print_json(list);
  } else {
    table.print();
  }
  flush_output();
  const auto found = problems(content);
  if (!found.empty()) throw Failure(fmt::format("the list is damaged: {}", fmt::join(found, "; ")));
}

}  // namespace

void add_subscriptions_command(Commands& commands, CLI::App& event) {
  commands.add<NoOptions>(event, "subscriptions",
                          "List which boxes have the events of which codes (makes a snapshot)",
                          "event subscriptions", describe_nothing, subscriptions);
}

void add_snapshot_commands(Commands& commands) {
  CLI::App* group = commands.app.add_subcommand("snapshot", "The server's snapshot file");
  group->require_subcommand(1);
  commands.add<NoOptions>(*group, "save", "Let the server write its snapshot", "snapshot save",
                          describe_nothing, save);
  commands.add<NoOptions>(*group, "load", "Let the server read its snapshot", "snapshot load",
                          describe_nothing, load);
  commands.add<FileOptions>(*group, "download", "Save a fresh snapshot and copy it here",
                            "snapshot download plant.snp", describe_download, download);
  commands.add<FileOptions>(*group, "show",
                            "Print a snapshot file, also a damaged one as far as it goes",
                            "snapshot show plant.snp --json", describe_show, show);
}

}  // namespace portsvc::tools
