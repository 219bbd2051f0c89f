#include "observe/endpoint.h"

#include <civetweb.h>
#include <fmt/format.h>

#include <array>
#include <charconv>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "observe/board.h"
#include "observe/metrics.h"
#include "observe/readable.h"
#include "platform/clock.h"

namespace portsvc::observe {
namespace {

struct Address {
  std::string host;  ///< with its brackets
  std::string port;
};

Address parsed(const std::string& text) {
  const auto colon = text.rfind(':');
  Address address;
  if (colon != std::string::npos) address = {text.substr(0, colon), text.substr(colon + 1)};
  unsigned int port = 0;
  const char* const end = address.port.data() + address.port.size();
  const auto number = std::from_chars(address.port.data(), end, port);
  const bool bracketed =
      address.host.size() > 2 && address.host.front() == '[' && address.host.back() == ']';
  if (address.host.empty() || number.ec != std::errc() || number.ptr != end || port > 65535 ||
      (!bracketed && address.host.find(':') != std::string::npos)) {
    throw std::runtime_error(
        fmt::format("the address '{}' is malformed, wanted: HOST:PORT, HOST an address", text));
  }
  if (address.host == "localhost") address.host = "127.0.0.1";
  return address;
}

bool is_loopback(std::string_view host) {
  if (host == "localhost" || host == "[::1]") return true;
  // A number, not a name that begins like one and leads wherever its owner wants.
  return host.substr(0, 4) == "127." && host.find_first_not_of("0123456789.") == host.npos;
}

std::string random_nonce() {
  std::random_device random;
  return fmt::format("{:08x}{:08x}{:08x}{:08x}", random(), random(), random(), random());
}

std::string with_nonce(std::string_view page, const std::string& nonce) {
  constexpr std::string_view mark = "NONCE";
  std::string text;
  for (auto at = page.find(mark); at != std::string_view::npos; at = page.find(mark)) {
    text += page.substr(0, at);
    text += nonce;
    page.remove_prefix(at + mark.size());
  }
  return text.append(page);
}

std::string variable(const char* query, const char* name) {
  std::array<char, 512> value{};
  if (!query) return {};
  const int length =
      mg_get_var(query, std::string_view(query).size(), name, value.data(), value.size());
  return length > 0 ? std::string(value.data(), static_cast<std::size_t>(length)) : std::string();
}

Board_Query board_query(const char* text) {
  Board_Query query;
  query.search = variable(text, "search");
  if (std::string sort = variable(text, "sort"); !sort.empty()) query.sort = std::move(sort);
  const std::string limit = variable(text, "limit");
  std::from_chars(limit.data(), limit.data() + limit.size(), query.limit);
  return query;
}

}  // namespace

struct Endpoint::Answer {
  int status = 200;
  const char* type = "text/plain; charset=utf-8";
  std::string body;
  std::string policy = "default-src 'none'; frame-ancestors 'none'";
};

void Endpoint::Stop::operator()(mg_context* context) const { mg_stop(context); }

Endpoint::Endpoint(const std::string& address, About about,
                   std::map<std::string, std::string> others)
    : about_(std::move(about)), others_(std::make_unique<Other_Boards>(std::move(others))) {
  const Address where = parsed(address);
  loopback_ = is_loopback(where.host);
  const std::string listening = where.host + ":" + where.port;
  // A thread serves one connection at a time: none stays open for a reader that is silent.
  const char* options[] = {"listening_ports",
                           listening.c_str(),
                           "num_threads",
                           "8",
                           "request_timeout_ms",
                           "5000",
                           "enable_keep_alive",
                           "no",
                           nullptr};
  mg_callbacks callbacks{};
  callbacks.begin_request = on_request;
  callbacks.log_message = [](const mg_connection*, const char*) { return 1; };  // none of its own
  mg_init_library(MG_FEATURES_DEFAULT);
  server_.reset(mg_start(&callbacks, this, options));
  if (!server_) {
    throw std::runtime_error(fmt::format(
        "cannot listen on {} for --metrics: the address is in use or not local", address));
  }
  mg_server_port port{};
  mg_get_server_ports(server_.get(), 1, &port);
  address_ = fmt::format("{}:{}", where.host, port.port);
}

Endpoint::~Endpoint() = default;

void Endpoint::show(std::function<Observed()> observe) {
  const std::unique_lock<std::shared_mutex> guard(lock_);
  observe_ = std::move(observe);
}

void Endpoint::hide() { show(nullptr); }

bool Endpoint::addressed_here(mg_connection* connection) const {
  if (!loopback_) return true;
  const char* const host = mg_get_header(connection, "Host");
  if (!host) return true;  // no browser
  const std::string_view text(host);
  const auto colon = text.rfind(':');
  const auto bracket = text.rfind(']');
  const bool with_port =
      colon != std::string_view::npos && (bracket == std::string_view::npos || colon > bracket);
  return is_loopback(with_port ? text.substr(0, colon) : text);
}

Endpoint::Answer Endpoint::answer_ready(const Observed& observed) const {
  const auto& peer = observed.server.peer;
  if (!peer) return {200, "text/plain; charset=utf-8", "ready\n"};
  return {peer->up ? 200 : 503, "text/plain; charset=utf-8",
          fmt::format("{}: main server {} {} for {} s\n", peer->up ? "ready" : "not ready",
                      readable(peer->name), peer->up ? "reached" : "not reached",
                      calendar_seconds() - peer->since)};
}

Endpoint::Answer Endpoint::answer(mg_connection* connection) const {
  const mg_request_info* const request = mg_get_request_info(connection);
  const std::string_view method = request->request_method;
  if (method != "GET" && method != "HEAD") return {405, "text/plain", "only GET and HEAD\n"};
  if (!addressed_here(connection)) return {421, "text/plain", "not addressed to this server\n"};
  const std::string_view path = request->local_uri;
  if (path == "/healthz") return {200, "text/plain", "alive\n"};
  if (path == "/") {
    const std::string nonce = random_nonce();
    return {200, "text/html; charset=utf-8", with_nonce(board_page(), nonce),
            fmt::format("default-src 'none'; script-src 'nonce-{0}'; style-src 'nonce-{0}'; "
                        "connect-src 'self'; img-src data:; base-uri 'none'; form-action 'none'; "
                        "frame-ancestors 'none'",
                        nonce)};
  }
  if (path != "/metrics" && path != "/board.json" && path != "/readyz") {
    return {404, "text/plain", "there is /, /board.json, /metrics, /healthz and /readyz\n"};
  }
  const std::shared_lock<std::shared_mutex> guard(lock_);
  if (!observe_) return {503, "text/plain", "not ready: it starts or stops\n"};
  const Observed observed = observe_();
  if (path == "/readyz") return answer_ready(observed);
  if (path == "/metrics") {
    return {200, "text/plain; version=0.0.4; charset=utf-8", metrics_text(about_, observed)};
  }
  return {200, "application/json",
          board_json(about_, observed, *others_, board_query(request->query_string))};
}

int Endpoint::on_request(mg_connection* connection) {
  const auto* const self =
      static_cast<const Endpoint*>(mg_get_user_data(mg_get_context(connection)));
  Answer answer;
  try {
    answer = self->answer(connection);
  } catch (const std::exception&) {
    answer = {500, "text/plain", "out of memory\n"};
  }
  const std::string head = fmt::format(
      "HTTP/1.1 {} {}\r\n"
      "Connection: close\r\n"
      "Content-Type: {}\r\n"
      "Content-Length: {}\r\n"
      "Content-Security-Policy: {}\r\n"
      "X-Content-Type-Options: nosniff\r\n"
      "X-Frame-Options: DENY\r\n"
      "Referrer-Policy: no-referrer\r\n"
      "Cross-Origin-Resource-Policy: same-origin\r\n"
      "Cache-Control: no-store\r\n{}\r\n",
      answer.status, mg_get_response_code_text(connection, answer.status), answer.type,
      answer.body.size(), answer.policy, answer.status == 405 ? "Allow: GET, HEAD\r\n" : "");
  mg_write(connection, head.data(), head.size());
  if (std::string_view(mg_get_request_info(connection)->request_method) != "HEAD") {
    mg_write(connection, answer.body.data(), answer.body.size());
  }
  return answer.status;
}

}  // namespace portsvc::observe
