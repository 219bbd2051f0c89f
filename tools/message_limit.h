// Payloads that are too large for the server. The remote interface does not tell its limit; the
// connection merely ends. So the limit is felt for, once a large payload has failed.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <utility>

#include "portsvc/client.h"

namespace portsvc::tools {

/// The largest payload known to pass and the smallest known not to, below `failed`, which is known
/// not to. They differ by a hundredth, or by more when feeling takes longer than three seconds.
/// Nothing when payloads of any size fail, or all pass. `passes` tries a payload of that size.
std::optional<std::pair<std::size_t, std::size_t>> feel_for_limit(
    std::size_t failed, const std::function<bool(std::size_t)>& passes);

/// Makes `call`, whose payload has `bytes`, and answers its result. Throws UsageError with both
/// figures when it fails because of the server's limit.
client::Result with_payload(const client::Connection& server, std::size_t bytes,
                            const std::function<client::Result()>& call);

}  // namespace portsvc::tools
