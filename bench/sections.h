// The sections of port_bench. Each starts the servers it needs, adds its rows and stops them again.
#pragma once

#include "bench/servers.h"

namespace portsvc::bench {

/// Operations that do not wait against the same calls on an empty servant.
void measure_against_empty_servant(const Bench& bench);
/// Events from producers to a consumer, beside other stores that do the same.
void measure_event_stores(const Bench& bench);
/// Operations beside many ports and many client handles.
void measure_growth(const Bench& bench);
/// The cost of blocked callers, to the server and to others.
void measure_blocked_callers(const Bench& bench);
/// Requests and replies, and events handed to a waiting consumer, beside a condition variable and
/// NATS.
void measure_exchanges(const Bench& bench);
void measure_hand_overs(const Bench& bench);
/// Cloning, and copies of events to sub servers.
void measure_sub_servers(const Bench& bench);

// What this program does in processes of its own. They serve until they are killed.

/// Serves an empty servant, or the waking servant, and writes its reference to `ior_file`.
int serve_empty(const std::string& ior_file);
int serve_waking(const std::string& ior_file);
/// Makes one blocked call for each of the ports waited0, waited1, ..., all at once: its owner takes
/// a packet that never comes.
int hold_callers(const std::string& reference, unsigned int count);
/// `count` threads that take a free mutex and sleep 10 ms, over and over.
int run_bare_threads(unsigned int count);

}  // namespace portsvc::bench
