#include "server/announcement.h"

#include <chrono>
#include <new>
#include <utility>

#include "platform/log.h"

namespace portsvc::server {
namespace {

constexpr std::chrono::seconds time_between_looks(3);

}  // namespace

Announcement::Announcement(std::shared_ptr<Directory> directory, std::string server,
                           std::string realm, std::string role, CORBA::Object_ptr reference)
    : directory_(std::move(directory)),
      server_(std::move(server)),
      realm_(std::move(realm)),
      role_(std::move(role)),
      reference_(CORBA::Object::_duplicate(reference)) {
  if (enter(true) && directory_->takes_entries()) {
    log(Log_Level::info, "directory", "entered as '" + server_ + "'");
  }
  thread_ = std::thread([this] { keep_entered(); });
}

Announcement::~Announcement() {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    stop_ = true;
  }
  stopped_.notify_all();
  thread_.join();
  if (entered_) directory_->unbind(server_, realm_, role_, reference_.in());
}

bool Announcement::enter(bool tell_failure) {
  try {
    directory_->bind(server_, realm_, role_, reference_.in());
    entered_ = true;
    return true;
  } catch (const orb::Error& error) {
    if (tell_failure) {
      log(Log_Level::warning, "directory", std::string(error.what()) + "; trying again");
    }
  }
  return false;
}

void Announcement::keep_entered() {
  std::unique_lock<std::mutex> guard(lock_);
  while (!stopped_.wait_for(guard, time_between_looks, [this] { return stop_; })) {
    guard.unlock();
    try {
      const CORBA::Object_var found = directory_->resolve(server_, realm_);
      if (CORBA::is_nil(found.in()) && directory_->takes_entries() && enter(false)) {
        log(Log_Level::info, "directory", "the naming service has entered '" + server_ + "'");
      }
    } catch (const std::bad_alloc&) {
      // The next look does it.
    }
    guard.lock();
  }
}

}  // namespace portsvc::server
