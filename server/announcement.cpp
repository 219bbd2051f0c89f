#include "server/announcement.h"

#include <chrono>
#include <utility>

#include "server/messages.h"

namespace portsvc::server {
namespace {

constexpr std::chrono::seconds retry_after(3);

}  // namespace

Announcement::Announcement(std::shared_ptr<Directory> directory, std::string server,
                           std::string realm, std::string role, CORBA::Object_ptr reference)
    : directory_(std::move(directory)),
      server_(std::move(server)),
      realm_(std::move(realm)),
      role_(std::move(role)),
      reference_(CORBA::Object::_duplicate(reference)) {
  if (!enter(true)) retries_ = std::thread([this] { keep_trying(); });
}

Announcement::~Announcement() {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    stop_ = true;
  }
  stopped_.notify_all();
  if (retries_.joinable()) retries_.join();
  if (entered_) directory_->unbind(server_, realm_, role_, reference_.in());
}

bool Announcement::enter(bool tell_failure) {
  try {
    directory_->bind(server_, realm_, role_, reference_.in());
    entered_ = true;
  } catch (const orb::Error& error) {
    if (tell_failure) tell(std::string(error.what()) + "; trying again");
  }
  return entered_;
}

void Announcement::keep_trying() {
  std::unique_lock<std::mutex> guard(lock_);
  while (!stopped_.wait_for(guard, retry_after, [this] { return stop_; })) {
    guard.unlock();
    if (enter(false)) {
      tell("the naming service has entered '" + server_ + "'");
      return;
    }
    guard.lock();
  }
}

}  // namespace portsvc::server
