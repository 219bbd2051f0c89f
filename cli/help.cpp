#include "cli/help.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <sstream>
#include <utility>

namespace portsvc::cli {
namespace {

constexpr std::size_t width = 80;
constexpr std::size_t meaning_column = 26;

// The words of `text` in lines that fit from `column` on, which the first line has reached already.
std::string wrapped(std::string_view text, std::size_t column) {
  std::string lines;
  std::size_t at = column;
  std::istringstream words{std::string(text)};
  for (std::string word; words >> word;) {
    if (at > column) {
      const bool fits = at + 1 + word.size() <= width;
      lines += fits ? " " : "\n" + std::string(column, ' ');
      at = fits ? at + 1 : column;
    }
    lines += word;
    at += word.size();
  }
  return lines + "\n";
}

std::string wrapped_lines(const std::string& text) {
  std::istringstream lines(text);
  std::string all;
  for (std::string line; std::getline(lines, line);) all += wrapped(line, 0);
  return all;
}

std::string two_columns(const std::string& left, const std::string& right) {
  std::string line = "  " + left;
  if (right.empty()) return line + "\n";
  if (line.size() + 2 > meaning_column) {
    line += "\n" + std::string(meaning_column, ' ');
  } else {
    line.resize(meaning_column, ' ');
  }
  return line + wrapped(right, meaning_column);
}

// What stands between `open` and `close` in the type of an option, where its checks are named.
std::string in_type(const CLI::Option& option, char open, char close) {
  const std::string type = option.get_type_name();
  const auto start = type.find(open);
  const auto end = type.find(close, start);
  if (start == std::string::npos || end == std::string::npos) return "";
  return type.substr(start + 1, end - start - 1);
}

std::string range(const CLI::Option& option) {
  const std::string bounds = in_type(option, '[', ']');
  const auto dash = bounds.find(" - ");
  if (dash == std::string::npos) return "";
  constexpr std::size_t digits_of_no_bound = 19;
  const std::string least = bounds.substr(0, dash);
  const std::string most = bounds.substr(dash + 3);
  return most.size() >= digits_of_no_bound ? least + " or more" : least + " to " + most;
}

bool takes_value(const CLI::Option& option) { return option.get_items_expected_max() != 0; }

bool takes_several(const CLI::Option& option) {
  return option.get_expected_max() >= CLI::detail::expected_max_vector_size;
}

std::string value_word(const CLI::Option& option) {
  if (!option.get_option_text().empty()) return option.get_option_text();
  std::string choice = in_type(option, '{', '}');
  std::replace(choice.begin(), choice.end(), ',', '|');
  if (!choice.empty()) return choice;
  return option.get_type_name().find("INT") < 2 ? "N" : option.get_type_name();
}

std::string full_name(const CLI::App& app) {
  return app.get_parent() ? full_name(*app.get_parent()) + " " + app.get_name() : app.get_name();
}

std::string synopsis(const CLI::App& app) {
  std::string text;
  for (const CLI::Option* option : app.get_options([](const CLI::Option* each) {
         return each->get_positional() && !each->get_group().empty();
       })) {
    std::string name = option->get_single_name() + (takes_several(*option) ? "..." : "");
    text += option->get_required() ? " " + name : " [" + name + "]";
  }
  const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
  return text + (commands.empty() ? "" : " COMMAND ...");
}

// --- manual pages

std::string escaped(std::string_view text) {
  std::string all;
  bool line_begins = true;
  for (const char c : text) {
    if (line_begins && (c == '.' || c == '\'')) all += "\\&";
    if (c == '\\') {
      all += "\\e";
    } else if (c == '-') {
      all += "\\-";
    } else {
      all += c;
    }
    line_begins = c == '\n';
  }
  return all;
}

std::string as_sentence(std::string text) {
  if (!text.empty() && text.back() != '.') text += '.';
  return escaped(text) + "\n";
}

std::string entry(const CLI::Option& option) {
  return fmt::format(".TP\n\\fB{}\\fR\n{}", escaped(label(option)), as_sentence(meaning(option)));
}

bool is_shown(const CLI::Option& option) {
  return !option.get_group().empty() && !option.check_name("--help");
}

std::string entries(const CLI::App& app, const std::set<std::string>& but = {}) {
  std::string all;
  for (const CLI::Option* option : app.get_options(
           [](const CLI::Option* each) { return each->get_positional() && is_shown(*each); })) {
    all += entry(*option);
  }
  for (const CLI::Option* option : app.get_options(
           [](const CLI::Option* each) { return !each->get_positional() && is_shown(*each); })) {
    if (but.count(label(*option)) == 0) all += entry(*option);
  }
  return all;
}

// Commands at the leaves, in the order in which they were added.
void collect(const CLI::App& app, std::vector<const CLI::App*>& all) {
  const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
  if (commands.empty()) all.push_back(&app);
  for (const CLI::App* command : commands) {
    if (!command->get_group().empty()) collect(*command, all);
  }
}

std::set<std::string> options_of_all(const std::vector<const CLI::App*>& commands) {
  std::map<std::string, std::size_t> counts;
  for (const CLI::App* command : commands) {
    for (const CLI::Option* option : command->get_options()) ++counts[label(*option)];
  }
  std::set<std::string> common;
  for (const auto& [name, count] : counts) {
    if (commands.size() > 1 && count == commands.size()) common.insert(name);
  }
  return common;
}

// Paragraphs are filled; lines that begin with blanks are examples and stay.
std::string part(const Manual::Part& part) {
  std::string all = fmt::format(".SH {}\n", part.heading);
  std::istringstream lines{std::string(part.text)};
  bool verbatim = false;
  for (std::string line; std::getline(lines, line);) {
    const bool indented = line.compare(0, 4, "    ") == 0;
    if (indented != verbatim) all += indented ? ".PP\n.nf\n.RS\n" : ".RE\n.fi\n.PP\n";
    verbatim = indented;
    if (indented) {
      all += escaped(line.substr(4)) + "\n";
    } else {
      all += line.empty() ? ".PP\n" : escaped(line) + "\n";
    }
  }
  return all + (verbatim ? ".RE\n.fi\n" : "");
}

}  // namespace

std::string label(const CLI::Option& option) {
  if (option.get_positional()) return option.get_single_name();
  std::vector<std::string> names;
  for (const auto& name : option.get_snames()) names.push_back("-" + name);
  for (const auto& name : option.get_lnames()) names.push_back("--" + name);
  std::string text = fmt::format("{}", fmt::join(names, ", "));
  if (takes_value(option)) text += " " + value_word(option);
  return text;
}

std::string meaning(const CLI::Option& option) {
  std::vector<std::string> notes;
  if (option.get_positional() && !in_type(option, '{', '}').empty()) {
    notes.push_back(value_word(option));
  }
  if (!range(option).empty()) notes.push_back(range(option));
  if (takes_value(option) && !option.get_default_str().empty()) {
    notes.push_back("default " + option.get_default_str());
  }
  if (!option.get_envname().empty()) notes.push_back("environment " + option.get_envname());
  if (option.get_required() && !option.get_positional()) notes.emplace_back("required");
  if (notes.empty()) return option.get_description();
  return fmt::format("{} [{}]", option.get_description(), fmt::join(notes, "; "));
}

std::string HelpFormatter::make_option(const CLI::Option* option, bool is_positional) const {
  return two_columns(is_positional ? option->get_single_name() : cli::label(*option),
                     meaning(*option));
}

std::string HelpFormatter::make_subcommand(const CLI::App* command) const {
  return two_columns(command->get_name(), command->get_description());
}

std::string HelpFormatter::make_description(const CLI::App* app) const {
  return wrapped_lines(app->get_description());
}

std::string HelpFormatter::make_usage(const CLI::App* app, std::string) const {
  return "\n" + wrapped("Usage: " + full_name(*app) + " [OPTIONS]" + synopsis(*app), 0);
}

std::string HelpFormatter::make_footer(const CLI::App* app) const {
  return wrapped_lines(app->get_footer());
}

std::string HelpFormatter::make_help(const CLI::App* app, std::string name,
                                     CLI::AppFormatMode mode) const {
  std::string text = CLI::Formatter::make_help(app, std::move(name), mode);
  // A hidden group leaves its blank line behind.
  for (auto at = text.find("\n\n\n"); at != std::string::npos; at = text.find("\n\n\n", at)) {
    text.erase(at, 1);
  }
  return text;
}

std::string manual_page(const CLI::App& app, const Manual& manual, std::string_view release,
                        std::string_view date) {
  std::string title = app.get_name();
  std::transform(title.begin(), title.end(), title.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  std::string page = fmt::format(
      ".\\\" Made from the option definitions of the program.\n"
      ".TH {} {} {} \"port service {}\" \"Port service\"\n.SH NAME\n{} \\- {}\n.SH SYNOPSIS\n"
      "\\fB{}\\fR [OPTIONS]{}\n",
      title, manual.section, date, release, escaped(app.get_name()), escaped(manual.summary),
      escaped(app.get_name()), escaped(synopsis(app)));
  for (const auto& text : manual.before) page += part(text);

  std::vector<const CLI::App*> commands;
  collect(app, commands);
  const auto common = options_of_all(commands);
  page += ".SH OPTIONS\n" + entries(app);
  for (const CLI::Option* option : commands.front()->get_options()) {
    if (common.count(label(*option)) != 0 && is_shown(*option)) page += entry(*option);
  }
  page += ".SH COMMANDS\n";
  for (const CLI::App* command : commands) {
    page +=
        fmt::format(".SS \"{}{}\"\n{}{}", escaped(full_name(*command)), escaped(synopsis(*command)),
                    as_sentence(command->get_description()), entries(*command, common));
    if (!command->get_footer().empty()) page += ".PP\n" + escaped(command->get_footer());
    if (page.back() != '\n') page += '\n';
  }
  for (const auto& text : manual.after) page += part(text);
  return page;
}

}  // namespace portsvc::cli
