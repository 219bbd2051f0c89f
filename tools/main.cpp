// portctl: the port service from the command line.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string_view>

#include "tools/arguments.h"
#include "tools/command_line.h"
#include "tools/completion.h"
#include "tools/errors.h"
#include "tools/interrupt.h"
#include "tools/output.h"
#include "tools/waiting.h"

namespace {

using namespace portsvc::tools;

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
  } catch (const CORBA::Exception& exception) {
    warn(session.explain(exception));
    return status::unreachable;
  } catch (const std::exception& error) {
    warn(error.what());
    return status::failed;
  }
}

}  // namespace

int main(int argc, char** argv) {
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
    // A thread that waits in a remote call would keep the broker from ending.
    if (left_a_call_behind()) std::_Exit(result);
  }
  return result;
}
