#include "server/configuration.h"

#include <fmt/format.h>

#include <CLI/Config.hpp>
#include <cerrno>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace portsvc::server {
namespace {

constexpr char no_quote = '\0';

/// A line of the file as the parser of the option library takes it, which would end it at a # also
/// within quotes.
struct Line {
  explicit Line(const std::string& text) {
    bool after_blank = true;
    for (const char c : text) {
      if (quote == no_quote && after_blank && c == '#') break;
      if (quote != no_quote) {
        if (c == quote) quote = no_quote;
      } else if (c == '"' || c == '\'') {
        quote = c;
      }
      after_blank = c == ' ' || c == '\t';
      content += c;
    }
    CLI::detail::trim(content);
    if (!content.empty() && content.front() == ';') content.clear();
  }

  std::string content;
  char quote = no_quote;  // one that has been left open
};

bool opens_list(const std::string& content) {
  const auto equals = content.find('=');
  const auto value = content.find_first_not_of(" \t", equals + 1);
  return equals != std::string::npos && value != std::string::npos && content[value] == '[' &&
         content.back() != ']';
}

class Configuration {
 public:
  Configuration(CLI::App& command, std::string path) : command_(command), path_(std::move(path)) {
    for (CLI::Option* option :
         command_.get_options([](CLI::Option* o) { return o->count() > 0; })) {
      given_.insert(option);
    }
    // No comments are left when it reads a line.
    format_.comment('\0');
  }

  void read() {
    errno = 0;
    std::ifstream file(path_);
    const auto fail_to_read = [this] {
      const std::string why = std::generic_category().message(errno);
      throw CLI::ConfigError(fmt::format("cannot read {}: {}", path_, why));
    };
    if (!file) fail_to_read();
    for (std::string text; std::getline(file, text);) {
      ++number_;
      Line line(text);
      first_ = number_;
      while (line.quote == no_quote && opens_list(line.content) && std::getline(file, text)) {
        ++number_;
        const Line more(text);
        line.content += ' ' + more.content;
        line.quote = more.quote;
      }
      if (line.quote != no_quote) fail("a quote is left open");
      if (opens_list(line.content)) fail("a list is left open");
      if (!line.content.empty()) take(line.content);
    }
    if (file.bad()) fail_to_read();
  }

 private:
  [[noreturn]] void fail(std::string_view what) const {
    throw CLI::ConfigError(fmt::format("{}: line {}: {}", path_, first_, what));
  }

  void take(const std::string& content) {
    if (content.front() == '[') fail("there are no sections, only lines KEY = VALUE");
    std::istringstream stream(content);
    const std::vector<CLI::ConfigItem> items = format_.from_config(stream);
    if (items.size() != 1 || items.front().name.empty() || content.find('=') == std::string::npos) {
      fail(fmt::format("'{}' is no KEY = VALUE", content));
    }
    const CLI::ConfigItem& item = items.front();
    const std::string key = item.fullname();
    CLI::Option* const option = command_.get_option_no_throw("--" + key);
    if (!option) fail(fmt::format("unknown key '{}'", key));
    if (!option->get_configurable()) fail(fmt::format("'{}' is for the command line only", key));

    const auto [earlier, first] = lines_.emplace(option, first_);
    if (!first && option->get_items_expected_max() <= 1) {
      fail(fmt::format("'{}' stands on line {} already", key, earlier->second));
    }
    if (!overridden(*option)) give(*option, item);
  }

  bool overridden(CLI::Option& option) const {
    if (given_.count(&option) != 0) return true;
    for (CLI::Option* other : option.get_excludes()) {
      if (given_.count(other) != 0) return true;
    }
    return false;
  }

  void give(CLI::Option& option, const CLI::ConfigItem& item) const {
    const bool flag = option.get_items_expected_max() == 0;
    if (option.get_items_expected_max() <= 1 && item.inputs.size() != 1) {
      fail(fmt::format("{}: {} values, wanted one; quotes hold blanks and commas together",
                       item.name, item.inputs.size()));
    }
    try {
      if (flag) {
        option.add_result(option.get_flag_value(item.name, item.inputs.front()));
      } else {
        option.add_result(item.inputs);
      }
      option.run_callback();
    } catch (const CLI::Error& error) {
      fail(error.what());
    }
  }

  CLI::App& command_;
  const std::string path_;
  CLI::ConfigTOML format_;
  std::set<const CLI::Option*> given_;       // on the command line
  std::map<const CLI::Option*, int> lines_;  // where an option has been met
  int number_ = 0;                           // of the line that has been read
  int first_ = 0;                            // of the lines that belong together
};

}  // namespace

void read_configuration(CLI::App& command, const std::string& path) {
  Configuration(command, path).read();
}

}  // namespace portsvc::server
