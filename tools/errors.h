// The ways in which a command of portctl ends early, one class for each exit status.
#pragma once

#include <stdexcept>
#include <string>

namespace portsvc::tools {

/// Exit statuses of portctl. An interrupted command ends with 128 + signal number, as in a shell.
namespace status {
constexpr int success = 0;
constexpr int failed = 1;       ///< a result code other than 0, or a local file that failed
constexpr int bad_usage = 2;    ///< the command line, or a file or reference it names
constexpr int unreachable = 3;  ///< the server could not be reached
constexpr int interrupted = 128;
}  // namespace status

/// The command line asks for something impossible.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The command failed on this side, for example on a full disk.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The server, or the directory that knows it, cannot be reached or is none.
class Unreachable : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The server answered a result code other than 0. The text names the operation, the code and
/// what the code means.
class ResultError : public std::runtime_error {
 public:
  /// `what` says what was tried, for example "send to orders".
  ResultError(const std::string& what, unsigned int code);
  unsigned int code() const { return code_; }

 private:
  unsigned int code_;
};

/// The user asked the command to end.
class Interrupted : public std::exception {
 public:
  const char* what() const noexcept override { return "interrupted"; }
};

/// Nobody reads the output any more: an end without a word, as the shell's own tools have it.
class ReaderGone : public std::exception {
 public:
  const char* what() const noexcept override { return "nobody reads the output"; }
};

/// "2017 send_timed_out: no owner took the packet before the time-out".
std::string code_text(unsigned int code);

/// Throws ResultError when `code` is not 0.
void check(const std::string& what, unsigned int code);

/// One line on standard error: "portctl: ...".
void warn(const std::string& message);

}  // namespace portsvc::tools
