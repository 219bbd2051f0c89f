// Snapshots, and the expiry of event boxes.

#include <ace/Guard_T.h>
#include <ace/OS_NS_stdio.h>
#include <ace/Thread_Mutex.h>

#include <cstdio>
#include <memory>
#include <new>

#include "core/port_factory_i.h"
#include "middleware/file_handle.h"
#include "persistence/snapshot_file.h"
#include "platform/process.h"
#include "ports/event_box.h"

using namespace portsvc;

namespace {

// Held while a snapshot file is written or read: all servants of the process share one file, and
// it is rewritten in place. Taken before every other lock.
ACE_Thread_Mutex& file_lock() {
  static ACE_Thread_Mutex lock;
  return lock;
}

struct Close_File {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, Close_File>;

// Writes a section; false when the disk did not take all of it.
bool write(std::FILE* file, const std::string& bytes) {
  return std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size() && std::fflush(file) == 0;
}

}  // namespace

const char* Port_Factory_i::get_snap_path() {
  if (snapshot_path_.empty()) {
    std::string path = state_folder() + "/SnapShot/";
    make_folder(path);
    if (!realm_.empty()) path += realm_ + "/";
    make_folder(path);
    snapshot_path_ = path + "portsnap.snp";
  }
  return snapshot_path_.c_str();
}

CORBA::ULong Port_Factory_i::make_snapshot() {
  ACE_GUARD_RETURN(ACE_Thread_Mutex, file_guard, file_lock(), result::servant_lock);
  const File file(ACE_OS::fopen(get_snap_path(), "w+b"));
  if (!file) return result::snapshot_not_writable;

  // Each section is gathered in memory under its lock and written after it, so that a slow disk
  // holds nobody up.
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
  if (!write(file.get(), ports.finish())) return result::snapshot_not_writable;

  snapshot::Section_Writer subscriptions(snapshot::subscriptions_marker);
  {
    ACE_READ_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, event_lock_, result::servant_lock);
    subscriptions.reserve(snapshot::header_size +
                          snapshot::subscription_record_size * events_.subscriptions());
    events_.for_each([&](int code, const std::string& name) {
      subscriptions.add_subscription(static_cast<std::uint32_t>(code), name);
    });
  }
  return write(file.get(), subscriptions.finish()) ? result::ok : result::snapshot_not_writable;
}

CORBA::ULong Port_Factory_i::load_snapshot() { return load_refsnapshot(get_snap_path()); }

unsigned int Port_Factory_i::load_refsnapshot(const char* path) {
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

void Port_Factory_i::checkNoTransition() {
  std::vector<std::string> expired;
  {
    ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, registry_lock_);
    for (const std::string_view name : registry_.box_names()) {
      const auto box = boost::dynamic_pointer_cast<vrEventBox>(get_port(name.data()));
      if (box && box->expired()) expired.emplace_back(box->name());
    }
  }
  for (const std::string& name : expired) delete_port(name.c_str());
}
