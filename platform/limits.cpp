#include "platform/limits.h"

#include <string>

#include "platform/log.h"

namespace portsvc {
namespace {

void report(const std::string& line, const char* whose) {
  log(Log_Level::warning, "limit", whose ? std::string("port ") + whose + ": " + line : line);
}

}  // namespace

Limits& limits() {
  static Limits limits;
  return limits;
}

bool Limit::allows(std::uint64_t used, std::atomic<bool>& reached, const char* whose) {
  if (used >= most()) {
    refuse(reached, whose);
    return false;
  }
  if (reached.load(std::memory_order_relaxed)) relieve(used, reached, whose);
  return true;
}

void Limit::refuse(std::atomic<bool>& reached, const char* whose) {
  refused_.fetch_add(1, std::memory_order_relaxed);
  if (reached.exchange(true)) return;
  report("the limit of " + std::to_string(most()) + " " + what_ +
             " is reached, what is above it is refused",
         whose);
}

void Limit::relieve(std::uint64_t used, std::atomic<bool>& reached, const char* whose) {
  if (used >= most() - most() / 10 || !reached.exchange(false)) return;
  report("below the limit of " + std::to_string(most()) + " " + what_ + " again", whose);
}

}  // namespace portsvc
