#include "platform/countdown.h"

#include "platform/clock.h"

namespace portsvc {

Countdown::Countdown(ACE_Time_Value* remaining) : remaining_(remaining) { start(); }

Countdown::~Countdown() { stop(); }

void Countdown::start() {
  if (!remaining_) return;
  start_ = clock().now();
  expired_ = false;
}

void Countdown::stop() {
  if (!remaining_ || expired_) return;
  const ACE_Time_Value now = clock().now();
  if (now >= start_) {
    const ACE_Time_Value elapsed = now - start_;
    if (*remaining_ > elapsed) {
      *remaining_ -= elapsed;
    } else {
      remaining_ = nullptr;
    }
  }
  expired_ = true;
}

void Countdown::update() {
  stop();
  start();
}

}  // namespace portsvc
