// A server's figures for the live board and for portctl top.
#pragma once

#include <cstddef>
#include <string>

#include "observe/observed.h"
#include "observe/other_boards.h"

namespace portsvc::observe {

/// Which ports the answer lists.
struct Board_Query {
  std::string search;         ///< names that contain this; empty: all
  std::string sort = "name";  ///< name, queued, waiting, dropped or put; the largest first
  std::size_t limit = 500;    ///< of those the first so many
};

constexpr std::size_t most_rows = 5000;

/// A JSON object; docs/operations.md says what its members mean.
std::string board_json(const About& about, const Observed& observed, Other_Boards& others,
                       const Board_Query& query);

/// The page that shows it. Every NONCE in it is to be replaced by the one of the answer's policy.
const char* board_page();

}  // namespace portsvc::observe
