// Writes the manual pages: the options come from the programs' own definitions, the words around
// them stand here. portsvc_manual PAGE DATE, PAGE being portctl.1 or port_server.8.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>
#include <string_view>

#include "cli/help.h"
#include "platform/version.h"
#include "server/options.h"
#include "tools/command_line.h"

namespace {

using portsvc::cli::Manual;

const Manual& portctl_manual() {
  static const Manual manual{
      1,
      "the port service from the command line",
      {{"DESCRIPTION",
        "portctl creates ports and event boxes on a server of the port service, sends packets and "
        "events through them, owns them, and shows what the server holds.\n\n"
        "Payloads are bytes. A command prints results on standard output and messages on standard "
        "error. Into a pipe nothing is taken that could not be shown; on a terminal control "
        "characters are escaped.\n\n"
        "Long transfers tell how far they have come while standard error is a terminal.\n\n"
        "The options of the program may also stand after the command."}},
      {{"EXIT STATUS",
        "    0    success\n"
        "    1    the server answered a result code other than 0, or a local file failed\n"
        "    2    bad usage\n"
        "    3    the server could not be reached\n"
        "    128+N  interrupted by signal N"},
       {"ENVIRONMENT",
        "PORTSVC_SERVER, PORTSVC_TLS_CA and PORTSVC_TLS_KEY stand for the options --server, "
        "--tls-ca and --tls-key."},
       {"EXAMPLES",
        "A port, an owner that answers each packet, and a request:\n"
        "    portctl create orders --limit 100\n"
        "    portctl serve orders --exec 'tr a-z A-Z' --take-over &\n"
        "    portctl send orders hello --wait\n"
        "An event box, subscribed to a code, and what arrives in it:\n"
        "    portctl create alarms --kind box\n"
        "    portctl event subscribe alarms 7\n"
        "    portctl event watch alarms --timestamps"},
       {"SEE ALSO", "port_server(8)"}}};
  return manual;
}

const Manual& server_manual() {
  static const Manual manual{
      8,
      "a server of the port service",
      {{"DESCRIPTION",
        "port_server keeps named packet ports and event boxes in memory and serves them over a "
        "CORBA broker. A main server keeps the ports; a sub server mirrors them, passes on what "
        "its clients do and takes copies of events.\n\n"
        "One line on standard output says that it serves and where; everything else goes to "
        "standard error. Without TLS there is no authentication."}},
      {{"SIGNALS",
        "SIGTERM and SIGINT stop the server within about 10 seconds, also while calls are blocked "
        "in it; a second one ends it at once."},
       {"EXIT STATUS",
        "    0    stopped\n"
        "    1    it could not start\n"
        "    2    bad usage"},
       {"FILES",
        "SnapShot/portsnap.snp in the state folder is the snapshot, portsnap.previous beside it "
        "that of the run before."},
       {"EXAMPLES",
        "    port_server main --name plant1 --endpoint giop:tcp:HOST:9700 \\\n"
        "      --directory servers.ini --state-dir /var/lib/ports\n"
        "    port_server sub --name line7 --main plant1 --endpoint giop:tcp:HOST:9700 \\\n"
        "      --directory servers.ini"},
       {"SEE ALSO", "portctl(1)"}}};
  return manual;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: portsvc_manual portctl.1|port_server.8 DATE\n", stderr);
    return 2;
  }
  CLI::App app;
  std::string page;
  if (std::string_view(argv[1]) == "portctl.1") {
    portsvc::tools::GlobalOptions options;
    portsvc::tools::Commands commands{app, {}};
    portsvc::tools::describe_portctl(commands, options);
    page = portsvc::cli::manual_page(app, portctl_manual(), portsvc::version(), argv[2]);
  } else {
    portsvc::server::Options options;
    portsvc::server::describe(app, options);
    page = portsvc::cli::manual_page(app, server_manual(), portsvc::version(), argv[2]);
  }
  return std::fwrite(page.data(), 1, page.size(), stdout) == page.size() ? 0 : 1;
}
