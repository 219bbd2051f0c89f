// Snapshots, and the expiry of event boxes.

#include <ace/Guard_T.h>
#include <ace/Thread_Mutex.h>
#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <new>

#include "core/port_factory_i.h"
#include "middleware/file_handle.h"
#include "persistence/snapshot_file.h"
#include "persistence/whole_file.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "platform/process.h"
#include "ports/event_box.h"

using namespace portsvc;

namespace {

// Held while a snapshot file is written or read: all servants of the process share one file. Taken
// before every other lock.
ACE_Thread_Mutex& file_lock() {
  static ACE_Thread_Mutex lock;
  return lock;
}

}  // namespace

const char* Port_Factory_i::get_snap_path() {
  if (snapshot_path_.empty()) {
    std::string path = snapshot::folder() + "/";
    make_folder(path);
    if (!realm_.empty()) path += realm_ + "/";
    make_folder(path);
    snapshot_path_ = path + snapshot::file_name;
  }
  return snapshot_path_.c_str();
}

CORBA::ULong Port_Factory_i::make_snapshot() {
  const std::string before = snapshot_state().problem;
  const unsigned int made = write_snapshot();
  const Snapshot_State state = snapshot_state();
  if (made == result::ok) {
    log(Log_Level::info, "snapshot",
        fmt::format("{} in {:.3f} s", before.empty() ? "written" : "snapshots are written again",
                    state.seconds));
  } else if (state.problem != before) {
    log(Log_Level::error, "snapshot", "no snapshot: " + state.problem);
  }
  return made;
}

unsigned int Port_Factory_i::write_snapshot() {
  ACE_GUARD_RETURN(ACE_Thread_Mutex, file_guard, file_lock(), result::servant_lock);
  const auto start = std::chrono::steady_clock::now();
  std::string problem;
  unsigned int made = result::snapshot_not_writable;
  try {
    std::string bytes;
    made = snapshot_of_all(bytes);
    if (made == result::ok) {
      problem = write_whole_file(get_snap_path(), bytes);
      if (!problem.empty()) made = result::snapshot_not_writable;
    }
  } catch (const std::bad_alloc&) {
    problem = "out of memory";
    errno = ENOMEM;
  }
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, snapshot_state_lock_, made);
  if (made == result::servant_lock) problem = "a lock could not be taken";
  if (made == result::ok) {
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    snapshot_state_.last_good = calendar_seconds();
    snapshot_state_.seconds = took.count();
    ++snapshot_state_.written;
  } else {
    ++snapshot_state_.failed;
  }
  snapshot_state_.problem = std::move(problem);
  return made;
}

Snapshot_State Port_Factory_i::snapshot_state() {
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, snapshot_state_lock_, {});
  return snapshot_state_;
}

// Gathered in memory, each section under its lock: a slow disk holds nobody up.
unsigned int Port_Factory_i::snapshot_of_all(std::string& bytes) {
  snapshot::Section_Writer ports(snapshot::ports_marker);
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, result::servant_lock);
    const auto add = [&](const char* name, bool persistent) {
      Varo::DT_PORT_SVC::PORT_INFO info{};
      if (get_port_info(name, info) == result::ok) {
        ports.add_port(name, info.kind, info.limit, persistent);
      }
    };
    ports.reserve(snapshot::header_size +
                  snapshot::port_record_size *
                      (registry_.port_names().size() + registry_.box_names().size()));
    for (const std::string_view name : registry_.port_names()) add(name.data(), false);
    for (const std::string_view name : registry_.box_names()) {
      const auto box = boost::dynamic_pointer_cast<vrEventBox>(get_port(name.data()));
      if (box) add(box->name(), box->persistent());
    }
  }
  snapshot::Section_Writer subscriptions(snapshot::subscriptions_marker);
  {
    ACE_READ_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, event_lock_, result::servant_lock);
    subscriptions.reserve(snapshot::header_size +
                          snapshot::subscription_record_size * events_.subscriptions());
    events_.for_each([&](int code, const std::string& name) {
      subscriptions.add_subscription(static_cast<std::uint32_t>(code), name);
    });
  }
  bytes = ports.finish() + subscriptions.finish();
  return result::ok;
}

CORBA::ULong Port_Factory_i::load_snapshot() { return load_refsnapshot(get_snap_path()); }

unsigned int Port_Factory_i::load_refsnapshot(const char* path) try {
  snapshot::Content content;
  {
    ACE_GUARD_RETURN(ACE_Thread_Mutex, file_guard, file_lock(), result::servant_lock);
    std::string bytes;
    if (!snapshot::read_file(path, "r+b", bytes)) return result::failed;
    content = snapshot::parse(bytes);
  }
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, result::servant_lock);
    for (const auto& record : content.ports) {
      create_port(record.name.c_str(), record.kind, record.limit);
      if (!record.persistent) continue;
      const auto box = boost::dynamic_pointer_cast<vrEventBox>(get_port(record.name.c_str()));
      if (box) box->set_persistent(true);
    }
  }
  for (const auto& record : content.subscriptions) add_event(record.name.c_str(), record.code);
  return result::ok;
} catch (const std::bad_alloc&) {
  errno = ENOMEM;
  return result::failed;
}

Varo::FileHandle_ptr Port_Factory_i::openSnapShot() {
  make_snapshot();
  PortableServer::Servant_var<FileHandleImpl> handle(new (std::nothrow)
                                                         FileHandleImpl(get_snap_path()));
  if (!handle.in()) return Varo::FileHandle::_nil();
  {
    // Opening copies the content: nobody may be writing it.
    ACE_GUARD_RETURN(ACE_Thread_Mutex, file_guard, file_lock(), Varo::FileHandle::_nil());
    if (!handle->open()) return Varo::FileHandle::_nil();
  }
  try {
    return handle->_this();
  } catch (const CORBA::Exception&) {
    return Varo::FileHandle::_nil();
  }
}

void Port_Factory_i::checkNoTransition() try {
  std::vector<std::string> expired;
  {
    ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, registry_lock_);
    for (const std::string_view name : registry_.box_names()) {
      const auto box = boost::dynamic_pointer_cast<vrEventBox>(get_port(name.data()));
      if (box && box->expired()) expired.emplace_back(box->name());
    }
  }
  for (const std::string& name : expired) delete_port(name.c_str());
} catch (const std::bad_alloc&) {
  errno = ENOMEM;  // the next pass
}
