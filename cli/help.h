// The texts about a program that its option definitions yield: help on the terminal and manual
// pages.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace portsvc::cli {

/// An option as one writes it: "-h, --help", "--timeout N", "--on-error drop|reply|stop". A word
/// set with Option::option_text stands for the value. A positional argument is its name.
std::string label(const CLI::Option& option);

/// What the option means, with its range, default and environment variable in brackets.
std::string meaning(const CLI::Option& option);

/// Help that fits a terminal of 80 columns. Give it to a program before its subcommands are added;
/// they take it over.
class HelpFormatter : public CLI::Formatter {
 public:
  std::string make_option(const CLI::Option* option, bool is_positional) const override;
  std::string make_subcommand(const CLI::App* command) const override;
  std::string make_description(const CLI::App* app) const override;
  std::string make_usage(const CLI::App* app, std::string name) const override;
  std::string make_footer(const CLI::App* app) const override;
  std::string make_help(const CLI::App* app, std::string name,
                        CLI::AppFormatMode mode) const override;
};

/// What a manual page says beside the options.
struct Manual {
  int section;
  std::string_view summary;  ///< half a sentence, for the index of all pages
  struct Part {
    std::string_view heading;
    std::string_view text;  ///< paragraphs; lines that begin with blanks stay as they are
  };
  std::vector<Part> before;  ///< parts that stand before the options
  std::vector<Part> after;
};

/// The manual page of a program, in the man macros. Options that all subcommands have stand once.
/// `release` is shown in the footer, `date` (YYYY-MM-DD) beside it.
std::string manual_page(const CLI::App& app, const Manual& manual, std::string_view release,
                        std::string_view date);

}  // namespace portsvc::cli
