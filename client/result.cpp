// Codes with their names.
#include <fmt/format.h>

#include "portsvc/client.h"

namespace portsvc::client {
namespace {

// The codes that are none of the service's.
constexpr ResultText other_texts[] = {
    {failure::unreachable, "unreachable", "the server cannot be reached"},
    {failure::lost, "lost", "the server was lost, restarted, or did not answer in time"},
    {failure::too_large, "too_large", "the message is larger than the largest message"},
    {failure::cancelled, "cancelled", "cancelled"},
    {failure::bad_address, "bad_address", "no reference and no HOST:PORT"},
    {failure::bad_options, "bad_options", "the broker cannot start with these options"},
    {failure::not_listed, "not_listed", "the directory does not list the server"},
    {failure::no_service, "no_service", "what answers there is no port service"},
    {failure::broker, "broker", "the broker failed"},
};

ResultText text_of(unsigned int code) {
  if (const ResultText* const text = result_text(code)) return *text;
  if (const ResultText* const text = refusal_text(code)) return *text;
  for (const ResultText& text : other_texts) {
    if (text.code == code) return text;
  }
  return {code, "unknown", "a code that the service does not have"};
}

}  // namespace

std::string_view Result::name() const { return text_of(code_).name; }

std::string_view Result::meaning() const { return text_of(code_).meaning; }

std::string Result::text() const {
  const ResultText text = text_of(code_);
  // Those of the library and of refusals are long and say nothing.
  if (!result_text(code_)) return fmt::format("{}: {}", text.name, text.meaning);
  return fmt::format("{} {}: {}", code_, text.name, text.meaning);
}

bool Result::may_pass() const {
  switch (code_) {
    case failure::unreachable:
    case failure::lost:
    case failure::no_service:
    case failure::not_listed:
    case refusal::stopping:
    case result::no_peer:
    case result::peer_receive:
    case result::failed:
    case result::unknown_handle:
    case result::unknown_name:
      return true;
    default:
      return false;
  }
}

void Result::check(const std::string& what) const {
  if (!ok()) throw Error(what + ": " + text(), *this);
}

Error::Error(const std::string& what, Result result) : std::runtime_error(what), result_(result) {}

}  // namespace portsvc::client
