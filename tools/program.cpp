#include "tools/program.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string_view>

#include "tools/arguments.h"
#include "tools/command_line.h"
#include "tools/completion.h"
#include "tools/errors.h"
#include "tools/interrupt.h"
#include "tools/output.h"

namespace portsvc::tools {
namespace {

int run(Session& session, const Commands& commands) {
  try {
    commands.chosen(session);
    flush_output();
    return status::success;
  } catch (const Interrupted&) {
    std::fflush(stdout);
    return status::interrupted + interrupted();
  } catch (const ReaderGone&) {
    return status::failed;
  } catch (const UsageError& error) {
    warn(error.what());
    return status::bad_usage;
  } catch (const Unreachable& error) {
    warn(error.what());
    return status::unreachable;
  } catch (const client::Error& error) {
    if (error.result() == client::failure::cancelled) return status::interrupted + interrupted();
    warn(with_options(error.what()));
    return status_of(error.result());
  } catch (const std::exception& error) {
    warn(error.what());
    return status::failed;
  }
}

}  // namespace

int portctl(int argc, char** argv) {
  if (argc > 1 && std::string_view(argv[1]) == completion_word) {
    complete({argv + 2, argv + argc});
    return status::success;
  }
  CLI::App app;
  GlobalOptions options;
  Commands commands{app, {}};
  describe_portctl(commands, options);
  try {
    app.parse(shielded_arguments(argc, argv));
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? status::success : status::bad_usage;
  }

  catch_interrupts();
  int result = status::success;
  {
    Session session(options);
    result = run(session, commands);
  }
  // What was interrupted may have left a thread in a remote call, which would not end.
  if (interrupted() != 0) std::_Exit(result);
  return result;
}

}  // namespace portsvc::tools
