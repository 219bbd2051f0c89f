#include "tools/board_client.h"

#include <fmt/core.h>

#include <chrono>

#include "observe/http_get.h"
#include "tools/errors.h"

namespace portsvc::tools {

Json read_board(const std::string& address, const std::string& search, const std::string& sort,
                std::size_t limit) {
  constexpr std::chrono::seconds patience(5);
  try {
    Json board =
        Json::parse(observe::http_get(address,
                                      fmt::format("/board.json?search={}&sort={}&limit={}",
                                                  observe::query_text(search), sort, limit),
                                      patience),
                    nullptr, false);
    if (board.is_object() && board.contains("ports")) return board;
  } catch (const observe::Bad_Address& failure) {
    throw UsageError(failure.what());
  } catch (const observe::No_Answer& failure) {
    throw Unreachable(failure.what());
  }
  throw Unreachable(fmt::format("{}: what answers is no port server", address));
}

}  // namespace portsvc::tools
