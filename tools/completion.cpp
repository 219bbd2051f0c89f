#include "tools/completion.h"

#include <fmt/core.h>

#include <algorithm>
#include <cstdio>

#include "cli/help.h"
#include "tools/command_line.h"
#include "tools/errors.h"
#include "tools/output.h"

namespace portsvc::tools {
namespace {

using Words = std::vector<std::string>;

// How far a command line has been read: the command it is in, and what the next word is for.
struct Position {
  const CLI::App* command;
  std::size_t arguments = 0;           // positional ones that have been given
  const CLI::Option* value = nullptr;  // of this option
  bool options_ended = false;          // by "--"
  Words globals = {};                  // options of the program itself, for its server
};

const CLI::Option* option_of(const CLI::App* command, const std::string& name) {
  for (; command; command = command->get_parent()) {
    const auto found = command->get_options(
        [&](const CLI::Option* each) { return !each->get_positional() && each->check_name(name); });
    if (!found.empty()) return found.front();
  }
  return nullptr;
}

const CLI::App* command_of(const CLI::App* parent, const std::string& name) {
  const auto found =
      parent->get_subcommands([&](const CLI::App* each) { return each->get_name() == name; });
  return found.empty() ? nullptr : found.front();
}

bool is_global(const CLI::Option* option, const CLI::App& app) {
  const auto all = app.get_options([&](const CLI::Option* each) { return each == option; });
  return !all.empty();
}

void read(Position& at, const std::string& word, const CLI::App& app) {
  if (at.value) {
    if (is_global(at.value, app)) at.globals.push_back(at.value->get_name() + "=" + word);
    at.value = nullptr;
  } else if (word == "--") {
    at.options_ended = true;
  } else if (!at.options_ended && word.size() > 1 && word[0] == '-') {
    const auto equals = word.find('=');
    const CLI::Option* option = option_of(at.command, word.substr(0, equals));
    if (!option) return;
    const bool takes_value = option->get_items_expected_max() != 0;
    if (takes_value && equals == std::string::npos) {
      at.value = option;
    } else if (is_global(option, app)) {
      at.globals.push_back(word);
    }
  } else if (const CLI::App* command = command_of(at.command, word)) {
    at.command = command;
  } else {
    ++at.arguments;
  }
}

const CLI::Option* argument(const Position& at) {
  const auto all =
      at.command->get_options([](const CLI::Option* each) { return each->get_positional(); });
  if (at.arguments < all.size()) return all[at.arguments];
  // The last one may take several.
  const bool several = !all.empty() && all.back()->get_expected_max() > 1;
  return several ? all.back() : nullptr;
}

void offer(const std::string& start, const std::string& word, const std::string& meaning) {
  if (word.compare(0, start.size(), start) != 0) return;
  if (word.find('\n') != std::string::npos) return;  // there is no line for it
  fmt::print("{}\t{}\n", word, meaning);
}

void offer_options(const Position& at, const std::string& start) {
  for (const CLI::App* command = at.command; command; command = command->get_parent()) {
    for (const CLI::Option* option :
         command->get_options([](const CLI::Option* each) { return !each->get_group().empty(); })) {
      for (const std::string& name : option->get_lnames()) {
        offer(start, "--" + name, option->get_description());
      }
    }
  }
}

void offer_commands(const Position& at, const std::string& start) {
  for (const CLI::App* command : at.command->get_subcommands(
           [](const CLI::App* each) { return !each->get_group().empty(); })) {
    offer(start, command->get_name(), command->get_description());
  }
}

// The session of a command line that is not finished.
class Asking {
 public:
  explicit Asking(Words globals) {
    CLI::App app;
    describe_global_options(app, options_);
    std::reverse(globals.begin(), globals.end());
    app.parse(globals);
    options_.call_timeout = 1;
  }
  const GlobalOptions& options() const { return options_; }

 private:
  GlobalOptions options_;
};

void offer_ports(const Words& globals, const std::string& start, bool packet_ports, bool boxes) {
  const Asking asking(globals);
  Session session(asking.options());
  Words ports;
  Words event_boxes;
  session.check("list ports", session.server().list(ports, event_boxes));
  if (!packet_ports) ports.clear();
  if (!boxes) event_boxes.clear();
  for (const std::string& port : ports) offer(start, port, "packet port");
  for (const std::string& box : event_boxes) offer(start, box, "event box");
}

void offer_servers(const Words& globals, const std::string& start) {
  const Asking asking(globals);
  const Session session(asking.options());
  if (!session.has_directory()) return;
  for (const auto& server : session.servers()) {
    offer(start, server.name, server.is_main ? "main server" : "sub server");
  }
}

void offer_values(const Position& at, const CLI::Option& option, const std::string& start) {
  const std::string& name = option.get_single_name();
  const std::string type = option.get_type_name();
  if (option.get_option_text() == "FILE" || name == "FILE") {
    fmt::print(":files\n");
  } else if (option.get_option_text() == "SERVER") {
    offer_servers(at.globals, start);
  } else if (name == "BOX") {
    offer_ports(at.globals, start, false, true);
  } else if (name == "NAME" && at.command->get_name() != "create") {
    static const Words packets{"send", "receive", "serve", "select"};
    const bool only =
        std::find(packets.begin(), packets.end(), at.command->get_name()) != packets.end();
    offer_ports(at.globals, start, true, !only);
  } else if (option.get_option_text() == "KIND") {
    for (const char* kind : {"port", "box", "proxy"}) offer(start, kind, "kind of port");
  } else if (const auto open = type.find('{'); open != std::string::npos) {
    for (const auto& word :
         CLI::detail::split(type.substr(open + 1, type.size() - open - 2), ',')) {
      offer(start, word, option.get_description());
    }
  }
}

}  // namespace

void complete(const std::vector<std::string>& words) {
  CLI::App app;
  GlobalOptions unused;
  Commands commands{app, {}};
  describe_portctl(commands, unused);
  Position at{&app};
  for (std::size_t i = 0; i + 1 < words.size(); ++i) read(at, words[i], app);
  const std::string start = words.empty() ? "" : words.back();
  try {
    if (at.value) {
      offer_values(at, *at.value, start);
    } else if (!at.options_ended && !start.empty() && start[0] == '-') {
      offer_options(at, start);
    } else {
      offer_commands(at, start);
      if (const CLI::Option* option = argument(at)) offer_values(at, *option, start);
    }
  } catch (const std::exception&) {
    // Nothing can be offered; a message would stand in the middle of what is being typed.
  }
}

}  // namespace portsvc::tools
