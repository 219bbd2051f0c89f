#include "tools/message_limit.h"

#include <fmt/core.h>

#include <algorithm>
#include <chrono>

#include "idl/port_codes.h"
#include "portsvc/stubs.h"
#include "tools/errors.h"
#include "tools/interrupt.h"

namespace portsvc::tools {
namespace {

using std::chrono::steady_clock;
using Varo::DT_PORT_SVC::Port_Factory_ptr;

// No server's limit is below that.
constexpr std::size_t always_passes = 4096;

// A reply to nobody: every server refuses it, and it changes nothing.
bool passes(const client::Connection& server, std::size_t bytes) {
  throw_if_interrupted();
  Varo::DATA_BUFFER data;
  data.length(static_cast<CORBA::ULong>(bytes));
  const client::Result refused =
      client::call(server, [&](Port_Factory_ptr port_service) -> unsigned int {
        return port_service->packet_replay(0, data, 0);
      });
  return result_text(refused.code()) != nullptr;
}

}  // namespace

std::optional<std::pair<std::size_t, std::size_t>> feel_for_limit(
    std::size_t failed, const std::function<bool(std::size_t)>& passes) {
  const auto end = steady_clock::now() + std::chrono::seconds(3);
  std::size_t good = std::min(always_passes, failed);
  std::size_t bad = failed;
  if (!passes(good) || passes(bad)) return std::nullopt;
  while (bad - good > bad / 100 && steady_clock::now() < end) {
    // From below: what passes is sent whole, what does not ends after its first bytes.
    const std::size_t middle = std::min(good * 2, good + (bad - good) / 2);
    (passes(middle) ? good : bad) = middle;
  }
  return std::pair(good, bad);
}

client::Result with_payload(const client::Connection& server, std::size_t bytes,
                            const std::function<client::Result()>& call) {
  const client::Result done = call();
  if (done != client::failure::lost && done != client::failure::too_large) return done;
  if (bytes <= always_passes) return done;
  const auto limit = feel_for_limit(bytes, [&](std::size_t size) { return passes(server, size); });
  if (!limit) return done;
  throw UsageError(
      fmt::format("a payload of {} bytes is above the server's largest message: {} bytes pass, "
                  "{} do not (--max-message of the server)",
                  bytes, limit->first, limit->second));
}

}  // namespace portsvc::tools
