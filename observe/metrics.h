// A server's figures as metrics.
#pragma once

#include <cstddef>
#include <string>

#include "observe/observed.h"

namespace portsvc::observe {

/// Beyond so many ports those first in name order have series of their own;
/// portsvc_ports_without_series says how many have none.
constexpr std::size_t ports_with_series = 5000;

/// The metrics in the text format of Prometheus, version 0.0.4. Names begin with portsvc_, those of
/// the process alone with process_.
std::string metrics_text(const About& about, const Observed& observed);

}  // namespace portsvc::observe
