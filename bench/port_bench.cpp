// Measures the port service over the broker and prints one table.
//
//   port_bench [--quick] [--only TEXT]... [--json] [--server PATH]
//
//   --quick        a short run: everything is exercised, the figures are rough
//   --only TEXT    only the sections whose name contains TEXT; may be repeated
//   --list         names the sections
//   --json         the rows as JSON, at the end
//   --server PATH  the port_server to measure; default: the one beside this program
//
// It starts the servers it needs itself: port_server, an empty servant of the same interface and
// one that keeps and wakes by condition variable (both this program in another process),
// redis-server, nats-server. They listen on free ports of the loopback, keep their files in a
// temporary folder, and are killed when they are no longer needed, or when this program ends in
// whatever way. One that is not installed has no rows.
//
// How to read it: what is compared is measured in one run, in slices that alternate, and the
// medians of the slices stand in `reference` (what is named under `against`) and `value`; `ratio`
// is value by reference. `conns` is the number of connections that call at the same time; a time is
// what one call takes as its caller sees it. `cpus one`: client and servers were pinned to one
// processor, as all rows with one connection are that do not wait. Pinned, a call costs the work
// that is done for it; free to move, mostly the waking of another processor.
// `target` is the bound that the ratio (or the value, where nothing stands beside it) is held to,
// with MISS where it is not kept.
//
// The empty servant has the same broker with the same options, gets the same arguments and gives
// back results of the same size: fresh sequences, allocated and not written to. Its process and
// this one keep the memory they free, as port_server does. Both sides are three processes whose
// slices count together: where the memory of one happens to lie stays with it. Calls that a
// measured one needs beforehand, such as the filling of a box, are made to both and not timed.
//
// `condition variable` is the smallest servant that does what is measured, the broker's own limit
// for it: its queues take the call's octets over, and nobody waits to be admitted. It, too, is
// three processes. A request is two calls by its client and two by its owner, with NATS a message
// each way.
#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "bench/sections.h"
#include "platform/memory.h"
#include "platform/process.h"

namespace portsvc::bench {
namespace {

struct Section {
  const char* name;
  void (*measure)(const Bench&);
};

constexpr Section sections[] = {
    {"limit", measure_against_empty_servant},
    {"stores", measure_event_stores},
    {"growth", measure_growth},
    {"blocked", measure_blocked_callers},
    {"exchange", measure_exchanges},
    {"hand-over", measure_hand_overs},
    {"subs", measure_sub_servers},
};

/// Ends this process with status 130, and the folder with it, when SIGINT or SIGTERM comes. To be
/// called before other threads are started: they must not take those signals.
void end_on_signal(const TemporaryFolder& folder) {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGINT);
  ::sigaddset(&signals, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::thread([&folder, signals] {
    int signal = 0;
    ::sigwait(&signals, &signal);
    std::filesystem::remove_all(folder.path());
    ::_exit(130);
  }).detach();
}

int run(const std::string& server, bool quick, bool json, const std::vector<std::string>& only) {
  allow_many_connections();
  const TemporaryFolder folder;
  end_on_signal(folder);
  Table table(json);
  const orb::Broker broker(orb::Options{});
  const Effort effort =
      quick ? Effort{3, std::chrono::milliseconds(15)} : Effort{25, std::chrono::milliseconds(25)};
  const Bench bench{server, quick, effort, broker, folder, table};
  for (const Section& section : sections) {
    const bool chosen =
        only.empty() || std::any_of(only.begin(), only.end(), [&](const std::string& text) {
          return std::string(section.name).find(text) != std::string::npos;
        });
    if (!chosen) continue;
    table.begin(section.name);
    section.measure(bench);
  }
  table.finish();
  return 0;
}

}  // namespace
}  // namespace portsvc::bench

int main(int argc, char** argv) {
  using namespace portsvc::bench;
  CLI::App app("Measures the port service over the broker");
  std::string server = portsvc::executable_folder() + "/port_server";
  bool quick = false;
  bool json = false;
  bool list = false;
  std::vector<std::string> only;
  app.add_flag("--quick", quick, "A short run");
  app.add_option("--only", only, "Only the sections whose name contains this")
      ->allow_extra_args(false);
  app.add_flag("--list", list, "Name the sections");
  app.add_flag("--json", json, "Print JSON");
  app.add_option("--server", server, "The port_server to measure")->check(CLI::ExistingFile);

  // The roles that this program plays in other processes.
  std::string file;
  std::string reference;
  unsigned int count = 0;
  CLI::App* const empty = app.add_subcommand(empty_server)->group("");
  empty->add_option("--ior-file", file)->required();
  CLI::App* const waking = app.add_subcommand(waking_server)->group("");
  waking->add_option("--ior-file", file)->required();
  CLI::App* const callers = app.add_subcommand("blocked-callers")->group("");
  callers->add_option("reference", reference)->required();
  callers->add_option("count", count)->required();
  CLI::App* const bare = app.add_subcommand("bare-threads")->group("");
  bare->add_option("count", count)->required();
  CLI11_PARSE(app, argc, argv);

  ::signal(SIGPIPE, SIG_IGN);
  portsvc::keep_freed_memory();
  try {
    if (*empty) return serve_empty(file);
    if (*waking) return serve_waking(file);
    if (*callers) return hold_callers(reference, count);
    if (*bare) return run_bare_threads(count);
    if (list) {
      for (const Section& section : sections) fmt::print("{}\n", section.name);
      return 0;
    }
    return run(server, quick, json, only);
  } catch (const std::exception& error) {
    fmt::print(stderr, "port_bench: {}\n", error.what());
  } catch (const CORBA::Exception& exception) {
    fmt::print(stderr, "port_bench: {}\n", portsvc::orb::describe(exception));
  }
  return 1;
}
