// What the shell offers after a half-typed command line. The shells' own files only ask portctl.
#pragma once

#include <string>
#include <vector>

namespace portsvc::tools {

/// The first word of a command line that asks for completions.
constexpr const char* completion_word = "--complete";

/// Prints a line for each way to complete the last of `words`, the command line up to the cursor
/// without the program: the word, a tab and what it means. Commands, options, their values and the
/// names of ports are known; a file's name is the shell's business, which the single line ":files"
/// says. A server that does not answer within a second completes nothing.
void complete(const std::vector<std::string>& words);

}  // namespace portsvc::tools
