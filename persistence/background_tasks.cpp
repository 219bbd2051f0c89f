#include "persistence/background_tasks.h"

#include "persistence/servant_hooks.h"
#include "platform/clock.h"

using namespace portsvc;

namespace {

const ACE_Time_Value save_round(3, 0);
const ACE_Time_Value check_round(2, 0);
constexpr std::int64_t check_period = 120;

}  // namespace

SnapSaveTask::SnapSaveTask(Port_Factory_i* owner) : owner_(owner), last_save_(calendar_seconds()) {}

int SnapSaveTask::svc() {
  while (!stop_) {
    if (last_save_ + period_ < calendar_seconds()) {
      if (owner_) servant::make_snapshot(owner_);
      last_save_ = calendar_seconds();
    }
    portsvc::clock().pause(save_round, &stop_);
  }
  return 0;
}

TransitionCheckTask::TransitionCheckTask(Port_Factory_i* owner)
    : owner_(owner), last_check_(calendar_seconds()) {}

int TransitionCheckTask::svc() {
  while (!stop_) {
    const std::int64_t now = calendar_seconds();
    if (now > last_check_ + check_period) {
      servant::check_no_transition(owner_);
      last_check_ = now;
    }
    portsvc::clock().pause(check_round, &stop_);
  }
  return 0;
}
