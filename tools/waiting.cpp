#include "tools/waiting.h"

#include <atomic>

namespace portsvc::tools {
namespace {

std::atomic<bool> left_behind{false};

}  // namespace

bool left_a_call_behind() { return left_behind.load(); }

void set_left_a_call_behind() { left_behind.store(true); }

}  // namespace portsvc::tools
