#include "observe/other_boards.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "observe/http_get.h"

namespace portsvc::observe {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds patience(1);
constexpr std::chrono::seconds between_questions(2);
constexpr std::chrono::seconds interest(10);

std::optional<Other_Boards::Server> ask(const std::string& address) {
  try {
    const auto board = nlohmann::json::parse(http_get(address, "/board.json?limit=0", patience));
    const auto& servers = board.at("servers");
    Other_Boards::Server server;
    server.role = servers.at(0).at("role");
    server.uptime = servers.at(0).at("uptime");
    if (server.role == "sub" && servers.size() > 1) {
      server.peer = servers.at(1).at("name");
      server.peer_up = servers.at(1).at("up");
    }
    return server;
  } catch (const std::exception&) {
    return std::nullopt;  // it is away, or something else answers there
  }
}

}  // namespace

Other_Boards::Other_Boards(std::map<std::string, std::string> addresses)
    : addresses_(std::move(addresses)) {
  if (!addresses_.empty()) thread_ = std::thread([this] { keep_asking(); });
}

Other_Boards::~Other_Boards() {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    stop_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
}

std::map<std::string, std::optional<Other_Boards::Server>> Other_Boards::known() {
  const std::lock_guard<std::mutex> guard(lock_);
  wanted_until_ = steady_clock::now() + interest;
  changed_.notify_all();
  return known_;
}

void Other_Boards::keep_asking() {
  std::unique_lock<std::mutex> guard(lock_);
  while (!stop_) {
    if (steady_clock::now() >= wanted_until_) {
      known_.clear();
      changed_.wait(guard, [this] { return stop_ || steady_clock::now() < wanted_until_; });
      continue;
    }
    for (const auto& [name, address] : addresses_) {
      guard.unlock();
      auto answer = ask(address);
      guard.lock();
      known_[name] = std::move(answer);
      if (stop_) return;
    }
    changed_.wait_for(guard, between_questions, [this] { return stop_; });
  }
}

}  // namespace portsvc::observe
