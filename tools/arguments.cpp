#include "tools/arguments.h"

#include <utility>

namespace portsvc::tools {
namespace {

constexpr char mark = '\x1d';

}  // namespace

std::vector<std::string> shielded_arguments(int argc, const char* const* argv) {
  std::vector<std::string> arguments;
  for (int i = argc - 1; i > 0; --i) {
    std::string argument = argv[i];
    if (argument[0] == '[' || argument[0] == mark) argument.insert(0, 1, mark);
    arguments.push_back(std::move(argument));
  }
  return arguments;
}

std::string unshielded(std::string argument) {
  if (argument[0] == mark) argument.erase(0, 1);
  return argument;
}

}  // namespace portsvc::tools
