// The ways in which a command of portctl ends early: client::Error, for what the server answers or
// does not, and these; and the exit status of each.
#pragma once

#include <stdexcept>
#include <string>

#include "portsvc/client.h"

namespace portsvc::tools {

/// Exit statuses of portctl. An interrupted command ends with 128 + signal number, as in a shell.
namespace status {
constexpr int success = 0;
constexpr int failed = 1;       ///< a result code other than 0, or a local file that failed
constexpr int bad_usage = 2;    ///< the command line, or a file or reference it names
constexpr int unreachable = 3;  ///< the server could not be reached
constexpr int interrupted = 128;
}  // namespace status

/// The status of a command that has failed like this.
int status_of(client::Result result);

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

/// The client library's line on a failure, with portctl's options where they help.
std::string with_options(const std::string& line);

/// One line on standard error: "portctl: ...".
void warn(const std::string& message);

}  // namespace portsvc::tools
