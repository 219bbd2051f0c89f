#include "observe/http_get.h"

#include <civetweb.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <memory>

namespace portsvc::observe {
namespace {

struct Close {
  void operator()(mg_connection* connection) const { mg_close_connection(connection); }
};

}  // namespace

std::string query_text(const std::string& text) {
  std::string code(3 * text.size() + 1, '\0');
  const int length = mg_url_encode(text.c_str(), code.data(), code.size());
  code.resize(static_cast<std::size_t>(std::max(length, 0)));
  return code;
}

std::string http_get(const std::string& address, const std::string& path,
                     std::chrono::milliseconds patience) {
  const auto colon = address.rfind(':');
  int port = 0;
  const char* const end = address.data() + address.size();
  if (colon == std::string::npos || colon == 0 ||
      std::from_chars(address.data() + colon + 1, end, port).ptr != end || port < 1 ||
      port > 65535) {
    throw Bad_Address(fmt::format("'{}' is malformed, wanted: HOST:PORT", address));
  }
  std::string host = address.substr(0, colon);
  if (host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);

  static const unsigned library = mg_init_library(MG_FEATURES_DEFAULT);
  (void)library;
  std::array<char, 256> why{};
  const std::unique_ptr<mg_connection, Close> connection(
      mg_connect_client(host.c_str(), port, 0, why.data(), why.size()));
  if (!connection) throw No_Answer(fmt::format("{}: nobody serves metrics there", address));
  const std::string request =
      fmt::format("GET {} HTTP/1.1\r\nHost: {}\r\nConnection: close\r\n\r\n", path, address);
  mg_write(connection.get(), request.data(), request.size());
  if (mg_get_response(connection.get(), why.data(), why.size(),
                      static_cast<int>(patience.count())) < 0) {
    throw No_Answer(fmt::format("{}: no answer", address));
  }
  std::string body;
  std::array<char, 65536> chunk;
  for (int got = 0; (got = mg_read(connection.get(), chunk.data(), chunk.size())) > 0;) {
    body.append(chunk.data(), static_cast<std::size_t>(got));
  }
  const int status = mg_get_response_info(connection.get())->status_code;
  if (status == 200) return body;
  throw No_Answer(fmt::format("{}: {} {}", address, status, body.substr(0, body.find('\n'))));
}

}  // namespace portsvc::observe
