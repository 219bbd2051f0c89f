// A question to another server's endpoint.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>

namespace portsvc::observe {

/// Nobody has answered, in one line for people.
class No_Answer : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The address itself is no HOST:PORT.
class Bad_Address : public No_Answer {
 public:
  using No_Answer::No_Answer;
};

/// The body of the answer to GET `path` at `address`, HOST:PORT. Waits for at most `patience` for
/// the answer, and for at most ten seconds for the connection. Throws No_Answer, also for an answer
/// other than 200.
std::string http_get(const std::string& address, const std::string& path,
                     std::chrono::milliseconds patience);

/// `text` as it may stand in a query.
std::string query_text(const std::string& text);

}  // namespace portsvc::observe
