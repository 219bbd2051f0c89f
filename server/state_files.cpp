#include "server/state_files.h"

#include <fmt/format.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "idl/port_codes.h"
#include "persistence/snapshot_file.h"
#include "persistence/whole_file.h"
#include "platform/output_file.h"
#include "platform/process.h"
#include "server/messages.h"

namespace fs = std::filesystem;

namespace portsvc::server {
namespace {

[[noreturn]] void fail(const char* what, const std::string& path, const std::error_code& why) {
  throw std::runtime_error(fmt::format("cannot {} {}: {}", what, path, why.message()));
}

void refuse_odd_file(const std::string& path) {
  const std::string odd = not_a_plain_file(path);
  if (!odd.empty()) throw std::runtime_error(odd);
}

constexpr const char* previous_name = "portsnap.previous";
constexpr const char* damaged_name = "portsnap.damaged";

fs::path snapshot_folder() { return snapshot::folder(); }

struct Candidate {
  explicit Candidate(const char* name) : path(snapshot_folder() / name) {
    std::error_code failure;
    exists = fs::exists(path, failure);
    if (!exists) return;
    written = fs::last_write_time(path, failure);
    std::string bytes;
    if (!snapshot::read_file(path.c_str(), "rb", bytes)) {
      problem = "it cannot be read";
      return;
    }
    content = snapshot::parse(bytes);
    problem = content.problem;
    if (problem.empty() && content.unreadable_records != 0) {
      problem = fmt::format("{} records have no readable name", content.unreadable_records);
    }
  }

  bool whole() const { return exists && problem.empty(); }
  std::size_t records() const { return content.ports.size() + content.subscriptions.size(); }

  void move_to(const fs::path& place) {
    std::error_code failure;
    fs::rename(path, place, failure);
    if (failure) fail("set aside", path, failure);
    path = place;
  }

  fs::path path;
  bool exists = false;
  fs::file_time_type written;
  snapshot::Content content;
  std::string problem;  // empty when it is whole
};

std::string restored(const Candidate& file) {
  std::size_t boxes = 0;
  for (const auto& port : file.content.ports) boxes += port.kind == PORT_EVENTBOX ? 1 : 0;
  return fmt::format("restored the snapshot {}: {} ports, {} event boxes, {} subscriptions{}",
                     file.path.string(), file.content.ports.size() - boxes, boxes,
                     file.content.subscriptions.size(),
                     file.whole() ? "" : fmt::format("; it is damaged: {}", file.problem));
}

// Out of the way of the servant, without loss of the only file that is worth something.
void keep(Candidate& last, const Candidate& previous) {
  if (!last.exists) return;
  if (last.whole() || !previous.whole()) {
    const bool nothing_beside_something = last.records() == 0 && previous.records() != 0;
    if (!nothing_beside_something) last.move_to(previous.path);
  } else {
    last.move_to(snapshot_folder() / damaged_name);
  }
}

}  // namespace

State_Folder::State_Folder(const std::string& folder) {
  if (!folder.empty()) {
    std::error_code failure;
    fs::create_directories(folder, failure);
    if (failure) fail("make the folder", folder, failure);
    set_state_folder(folder);
  }
  const std::string snapshots = snapshot_folder();
  make_folder(snapshots);
  // The folder itself is locked: that needs no further file, and ends with the process.
  bool others = false;
  try {
    locked_ = File(snapshots, File::Mode::folder);
    others = !locked_.lock();
  } catch (const std::system_error& failure) {
    tell(fmt::format("cannot lock {}: {}; nothing keeps another server out of it", snapshots,
                     failure.code().message()));
  }
  if (others) {
    throw std::runtime_error(
        fmt::format("another server works in the state folder {}", state_folder()));
  }
  for (const std::string& name :
       {std::string(snapshot::file_name), std::string(snapshot::file_name) + unfinished,
        std::string(previous_name), std::string(damaged_name)}) {
    refuse_odd_file(snapshot_folder() / name);
  }
}

Found_Snapshot set_aside_snapshot(Restore restore) {
  Candidate last(snapshot::file_name);
  Candidate previous(previous_name);
  if (restore == Restore::no) {
    keep(last, previous);
    return {};
  }
  if (!last.exists && !previous.exists) return {std::nullopt, "there is no snapshot to restore"};

  const bool newer = last.exists && (!previous.exists || last.written >= previous.written);
  Candidate* chosen = newer ? &last : &previous;
  Candidate* const other = newer ? &previous : &last;
  if (!chosen->whole() && other->whole()) {
    chosen = other;
  } else if (!chosen->whole()) {
    if (restore != Restore::damaged) {
      throw std::runtime_error(
          fmt::format("the snapshot {} is damaged: {}; --restore-damaged takes what is whole of it",
                      chosen->path.string(), chosen->problem));
    }
    if (other->records() > chosen->records()) chosen = other;
  }
  std::string skipped;
  const Candidate& left_out = chosen == &last ? previous : last;
  if (left_out.exists && !left_out.whole()) {
    skipped =
        fmt::format("; left out the damaged {}: {}", left_out.path.string(), left_out.problem);
  }
  if (chosen == &last) {
    // What is chosen takes the place of the previous one, unless it holds nothing and that does.
    if (last.records() != 0 || previous.records() == 0) last.move_to(previous.path);
  } else if (last.exists && !last.whole()) {
    last.move_to(snapshot_folder() / damaged_name);
  }
  Found_Snapshot found{std::nullopt, restored(*chosen) + skipped};
  if (chosen->records() != 0) found.to_load = chosen->path;
  return found;
}

void write_by_rename(const std::string& path, const std::string& content) {
  write_output_file(path, content);
}

}  // namespace portsvc::server
