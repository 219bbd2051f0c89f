// What portctl prints on standard output: tables, JSON and payloads. Every write is checked, so
// that a full disk or a closed pipe is noticed: Failure.
#pragma once

#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/sink.h"

namespace portsvc::tools {

using Json = nlohmann::ordered_json;

/// Writes bytes to standard output. They may stay in its buffer until flush_output().
void write_output(std::string_view bytes);
void flush_output();

/// One document, indented, with a newline. Bytes that are no UTF-8 are replaced.
void print_json(const Json& document);
/// One document on one line, for outputs that go on; it leaves at once.
void print_json_line(const Json& document);

/// `text` as one line of a terminal: control characters are escaped, an empty text shows as "".
std::string printable(std::string_view text);

/// A table with a header and aligned columns.
class Table {
 public:
  explicit Table(std::vector<std::string> header) : rows_{std::move(header)} {}
  void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  void print() const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

/// {"size": n, "text": ...} or, when the bytes are no UTF-8, {"size": n, "base64": ...}.
Json payload_json(const std::string& bytes);

/// `text` as a payload on a terminal: control characters other than newline and tab, and bytes that
/// are no UTF-8, are escaped, so that no payload commands the terminal.
std::string shown_on_terminal(std::string_view text);

/// Where and how received payloads are written.
class PayloadPrinter {
 public:
  struct Options {
    bool json = false;        ///< one JSON object per line
    bool raw = false;         ///< the bytes alone, with nothing between two payloads
    std::string file;         ///< the bytes alone, into this file; "-" is standard output
    bool timestamps = false;  ///< the time of printing before each payload
    bool names = false;       ///< the name of its port before each payload
  };
  /// Throws UsageError when the file cannot be opened, so before anything has been taken.
  explicit PayloadPrinter(const Options& options);

  Sink& sink() { return sink_; }

  /// Writes a payload of `port` at once and answers how many bytes that took. `source` is the
  /// sender's handle, where there is one.
  std::size_t print(std::string_view payload, const std::string& port,
                    std::optional<unsigned int> source = {});

 private:
  Options options_;
  Sink sink_;
};

}  // namespace portsvc::tools
