// top: the ports of a server as a live table.
#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "idl/port_codes.h"
#include "platform/file.h"
#include "platform/streams.h"
#include "platform/terminal.h"
#include "tools/board_client.h"
#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/interrupt.h"
#include "tools/output.h"

namespace portsvc::tools {
namespace {

using std::chrono::steady_clock;

struct TopOptions {
  std::string metrics;
  std::string search;
  std::string sort = "name";
  unsigned int interval = 2;
  unsigned int count = 0;
  unsigned int rows = 0;
};

void describe_top(CLI::App& command, TopOptions& options) {
  command.add_option("--metrics", options.metrics,
                     "HOST:PORT of the server's metrics (default: what the server itself tells, "
                     "which has no rates)");
  command.add_option("--search", options.search, "Only names that contain this");
  command
      .add_option("--sort", options.sort,
                  "name, queued, waiting, dropped or put; but for name the largest first")
      ->capture_default_str()
      ->check(CLI::IsMember({"name", "queued", "waiting", "dropped", "put"}));
  command.add_option("--interval", options.interval, "Seconds between two looks")
      ->capture_default_str()
      ->check(CLI::Range(1U, 3600U));
  command.add_option("--count", options.count, "End after so many looks (default: never)");
  command.add_option("--rows", options.rows,
                     "Largest number of ports shown (default: what the terminal holds, else 1000)");
}

// --- what there is, in the shape of the board

Json port_of(Session& session, const std::string& name,
             const std::map<std::string, std::string>& hosts) {
  client::PortInfo info;
  const client::Result known = session.server().info(name, info);
  if (known == result::no_such_port) return nullptr;
  session.check("look up " + name, known);
  Json port{{"name", printable(name)},
            {"kind", info.kind == PORT_EVENTBOX ? "box"
                     : info.kind == PORT_SLAVE  ? "proxy"
                                                : "packet"},
            {"limit", info.limit},
            {"owner", info.owner_connected}};
  const auto host = hosts.find(name);
  port["host"] = host == hosts.end() ? "" : printable(host->second);
  unsigned int events = 0;
  if (info.kind == PORT_EVENTBOX && session.server().count(name, events)) {
    port["packets"] = {{"queued", events}};
  }
  return port;
}

Json board_of(Session& session, const TopOptions& options, const std::string& sort,
              std::size_t limit) {
  std::vector<std::string> names;
  std::vector<std::string> boxes;
  session.check("list ports", session.server().list(names, boxes));
  names.insert(names.end(), boxes.begin(), boxes.end());
  const std::size_t all = names.size();
  names.erase(std::remove_if(names.begin(), names.end(),
                             [&](const std::string& name) {
                               return name.find(options.search) == std::string::npos;
                             }),
              names.end());
  std::sort(names.begin(), names.end());
  std::map<std::string, std::string> hosts;
  session.check("list connections", session.server().hosts(hosts));
  Json rows = Json::array();
  for (const std::string& name : names) {
    // All have to be asked for when the fullest are wanted.
    if (sort == "name" && rows.size() == limit) break;
    throw_if_interrupted();
    if (Json port = port_of(session, name, hosts); !port.is_null()) rows.push_back(std::move(port));
  }
  if (sort == "queued") {
    const auto queued = [](const Json& port) {
      return port.contains("packets") ? port["packets"]["queued"].get<std::uint64_t>() : 0;
    };
    std::stable_sort(rows.begin(), rows.end(),
                     [&](const Json& a, const Json& b) { return queued(a) > queued(b); });
  }
  while (rows.size() > limit) rows.erase(rows.size() - 1);
  return {{"ports_total", all}, {"ports", std::move(rows)}};
}

// --- the table

using Row = std::array<std::string, 8>;
constexpr std::array<const char*, 8> titles{"NAME", "KIND",  "QUEUE",   "WAITING",
                                            "IN/S", "OUT/S", "DROPPED", "OWNER"};

/// Counts of the look before, for rates.
struct Before {
  steady_clock::time_point at;
  std::map<std::string, std::pair<double, double>> flows;  // put and taken, by name
};

std::string number(const Json& object, const char* key) {
  return object.contains(key) ? std::to_string(object[key].get<std::uint64_t>()) : "-";
}

double count_of(const Json& object, const char* key) { return object.value(key, 0.0); }

Row row_of(const Json& port, const std::optional<Before>& before, double seconds) {
  Row row;
  row[0] = port.value("name", "");
  row[1] = port.value("kind", "");
  row[2] = row[3] = row[4] = row[5] = row[6] = "-";
  const bool has_flow = port.contains("packets");
  const Json packets = has_flow ? port["packets"] : Json::object();
  if (has_flow) row[2] = number(packets, "queued") + "/" + number(port, "limit");
  if (port.contains("takers_waiting")) {
    row[3] =
        fmt::format("{:.0f}", count_of(port, "senders_waiting") + count_of(port, "takers_waiting") +
                                  count_of(port, "reply_takers_waiting"));
  }
  if (packets.contains("put") && before && seconds > 0) {
    const auto old = before->flows.find(row[0]);
    if (old != before->flows.end()) {
      row[4] = fmt::format("{:.1f}", (count_of(packets, "put") - old->second.first) / seconds);
      row[5] = fmt::format("{:.1f}", (count_of(packets, "taken") - old->second.second) / seconds);
    }
  }
  if (packets.contains("dropped")) {
    const double replies = port.contains("replies") ? count_of(port["replies"], "dropped") : 0;
    row[6] = fmt::format("{:.0f}", count_of(packets, "dropped") + replies);
  }
  const std::string host = port.value("host", "");
  row[7] = !port.value("owner", false) ? "-" : host.empty() ? "yes" : host;
  return row;
}

/// Lines whose columns stand under one another; a name that is too long is cut.
std::vector<std::string> aligned(const std::vector<Row>& rows) {
  constexpr std::size_t widest = 48;
  std::array<std::size_t, 8> widths{};
  const auto shown = [&](const std::string& text) { return std::min(text.size(), widest); };
  for (std::size_t i = 0; i < titles.size(); ++i) {
    widths[i] = std::string(titles[i]).size();
    for (const Row& row : rows) widths[i] = std::max(widths[i], shown(row[i]));
  }
  std::vector<std::string> lines;
  const auto add = [&](const auto& cells) {
    std::string line;
    for (std::size_t i = 0; i < titles.size(); ++i) {
      std::string cell = cells[i];
      if (cell.size() > widest) cell = cell.substr(0, widest - 3) + "...";
      line += i >= 2 && i <= 6 ? fmt::format("{:>{}}  ", cell, widths[i])
                               : fmt::format("{:<{}}  ", cell, widths[i]);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    lines.push_back(std::move(line));
  };
  add(titles);
  for (const Row& row : rows) add(row);
  return lines;
}

std::string headline(const Json& board) {
  std::string line;
  if (board.contains("servers")) {
    const Json& self = board["servers"][0];
    line = fmt::format("{} {}, up {} s", self.value("role", ""), self.value("name", ""),
                       self.value("uptime", 0));
    for (std::size_t i = 1; i < board["servers"].size(); ++i) {
      const Json& other = board["servers"][i];
      line += fmt::format(", {} {}", other.value("role", ""), other.value("name", ""));
      if (other.contains("up")) line += other["up"].get<bool>() ? " reached" : " NOT REACHED";
    }
    line += ", ";
  }
  return line + fmt::format("{} of {} ports", board["ports"].size(), number(board, "ports_total"));
}

// --- the terminal

/// Single keys, without an echo, and a screen of its own while it lives.
class Screen {
 public:
  Screen() { write_output("\x1b[?1049h\x1b[?25l"); }
  ~Screen() {
    std::fputs("\x1b[?25h\x1b[?1049l", stdout);
    std::fflush(stdout);
  }
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  static void show(std::vector<std::string> lines) {
    const Terminal_Size size = terminal_size();
    lines.resize(std::min<std::size_t>(lines.size(), size.rows - 1U));
    std::string text = "\x1b[H";
    for (const std::string& line : lines) {
      // By whole characters: the last byte that may begin one.
      std::size_t end = std::min<std::size_t>(line.size(), size.columns);
      while (end > 0 && end < line.size() && (line[end] & 0xc0) == 0x80) --end;
      text += line.substr(0, end) + "\x1b[K\n";
    }
    write_output(text + "\x1b[J");
    flush_output();
  }

 private:
  const Single_Keys keys_;
};

class Top {
 public:
  Top(Session& session, const TopOptions& options)
      : session_(session), options_(options), sort_(options.sort) {}

  void run() {
    const bool live =
        is_terminal(standard_input) && is_terminal(standard_output) && !session_.options().json;
    std::optional<Screen> screen;
    if (live) screen.emplace();
    for (unsigned int look = 1;; ++look) {
      if (live) {
        show_live();
      } else {
        print_plain(look);
      }
      if (look == options_.count || !rest(live)) return;
    }
  }

 private:
  Json board() {
    std::size_t rows = options_.rows;
    if (rows == 0) rows = is_terminal(standard_output) ? terminal_size().rows : 1000;
    return options_.metrics.empty() ? board_of(session_, options_, sort_, rows)
                                    : read_board(options_.metrics, options_.search, sort_, rows);
  }

  std::vector<std::string> lines_of(const Json& board) {
    const auto now = steady_clock::now();
    const double seconds = before_ ? std::chrono::duration<double>(now - before_->at).count() : 0;
    std::vector<Row> rows;
    Before current{now, {}};
    for (const Json& port : board["ports"]) {
      rows.push_back(row_of(port, before_, seconds));
      if (!port.contains("packets")) continue;
      current.flows[rows.back()[0]] = {count_of(port["packets"], "put"),
                                       count_of(port["packets"], "taken")};
    }
    before_ = std::move(current);
    return aligned(rows);
  }

  void print_plain(unsigned int look) {
    const Json board = this->board();
    if (session_.options().json) {
      print_json(board);
    } else {
      if (look > 1) write_output("\n");
      write_output(headline(board) + "\n");
      for (const std::string& line : lines_of(board)) write_output(line + "\n");
    }
    flush_output();
  }

  // Somebody watches: a server that is away for a while is told, not left.
  void show_live() {
    std::vector<std::string> lines;
    try {
      const Json board = this->board();
      lines = lines_of(board);
      lines.insert(lines.begin(), headline(board));
    } catch (const Unreachable& failure) {
      lines = {failure.what()};
    } catch (const client::Error& failure) {
      lines = {with_options(failure.what())};
    }
    lines.insert(lines.begin() + 1,
                 fmt::format("sort: {} (keys: n name, u queued, w waiting, d dropped, p put; q "
                             "quit)",
                             sort_));
    Screen::show(std::move(lines));
  }

  // Until the next look; false to quit.
  bool rest(bool live) {
    const bool pressed = wait_readable({interrupt_fd(), live ? standard_input : -1},
                                       std::chrono::seconds(options_.interval));
    throw_if_interrupted();
    char key = 0;
    if (pressed) {
      const std::optional<char> next = next_key();
      if (!next) return false;
      key = *next;
    }
    static const std::map<char, const char*> sorts{
        {'n', "name"}, {'u', "queued"}, {'w', "waiting"}, {'d', "dropped"}, {'p', "put"}};
    if (const auto sort = sorts.find(key); sort != sorts.end()) sort_ = sort->second;
    return key != 'q';
  }

  Session& session_;
  const TopOptions& options_;
  std::string sort_;
  std::optional<Before> before_;
};

void top(Session& session, const TopOptions& options) { Top(session, options).run(); }

}  // namespace

void add_top_command(Commands& commands) {
  commands.add<TopOptions>(commands.app, "top",
                           "Watch the ports of a server: a live table on a terminal, else a table "
                           "every few seconds",
                           "top --metrics 127.0.0.1:9780", describe_top, top);
}

}  // namespace portsvc::tools
