// What portctl sends: payloads from the command line, from a file or from standard input.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace portsvc::tools {

/// Where a payload comes from, as the command line says.
struct PayloadOptions {
  std::optional<std::string> data;  ///< given as an argument
  std::string file;                 ///< given with --file
};

/// The payload: the argument, the file's bytes or, with neither, all of standard input.
/// Throws UsageError when the file cannot be read or both are given, Interrupted.
std::string read_payload(const PayloadOptions& options);

/// Standard input, line by line. A line is what stands before a newline, or before the end.
class LineReader {
 public:
  /// The next line without its newline, nothing at the end. Waits for input; throws Interrupted.
  std::optional<std::string> next();
  /// True when next() would answer a line without waiting.
  bool has_line() const { return buffer_.find('\n', start_) != std::string::npos; }
  /// Bytes handed out so far.
  std::uint64_t bytes() const { return read_ - (buffer_.size() - start_); }
  /// Bytes there are in all, when standard input is a regular file.
  static std::optional<std::uint64_t> bytes_in_all();

 private:
  std::string buffer_;     // read and not yet handed out, from start_ on
  std::size_t start_ = 0;  // what stands before it has been handed out
  std::uint64_t read_ = 0;
  bool at_end_ = false;
};

/// Throws UsageError when a message with so many payload bytes would be larger than `max_message`.
void check_size(std::size_t payload_bytes, std::uint64_t max_message);

}  // namespace portsvc::tools
