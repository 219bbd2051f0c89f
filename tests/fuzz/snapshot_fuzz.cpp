// Any bytes as a snapshot file: parsed, written again, and loaded into a main servant.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "idl/port_codes.h"
#include "roles/port_factory_main.h"
#include "tests/support/snapshots.h"

namespace {

using namespace portsvc;

void require(bool condition) {
  if (!condition) std::abort();
}

// What was read can be written, and reads the same again.
void check_round_trip(std::string_view bytes) {
  const snapshot::Content content = snapshot::parse(bytes);
  const std::size_t records =
      content.ports.size() + content.subscriptions.size() + content.unreadable_records;
  require(records * snapshot::subscription_record_size <= bytes.size());

  snapshot::Section_Writer ports(snapshot::ports_marker);
  for (const auto& record : content.ports) {
    ports.add_port(record.name, record.kind, record.limit, record.persistent);
  }
  snapshot::Section_Writer subscriptions(snapshot::subscriptions_marker);
  for (const auto& record : content.subscriptions) {
    subscriptions.add_subscription(record.code, record.name);
  }
  const snapshot::Content again = snapshot::parse(ports.finish() + subscriptions.finish());
  require(again.problem.empty());
  require(all_of(again) == all_of(content));
}

void check_load(const std::uint8_t* data, std::size_t size) {
  static auto* const servant = new Port_Factory_Main("fuzz");  // lives as long as the process
  static const int file = ::memfd_create("snapshot", 0);
  static const std::string path = "/proc/self/fd/" + std::to_string(file);
  require(::ftruncate(file, 0) == 0);
  require(::pwrite(file, data, size, 0) == static_cast<ssize_t>(size));

  require(servant->load_refsnapshot(path.c_str()) == result::ok);

  Varo::STRING_LIST_var ports;
  Varo::STRING_LIST_var boxes;
  require(servant->patch_object_name(ports.out(), boxes.out()) == result::ok);
  for (const auto* const list : {&ports, &boxes}) {
    for (CORBA::ULong i = 0; i < (*list)->length(); ++i) {
      const char* const name = list->in()[i];
      require(servant->exist(name) == 0);
      servant->delete_port(name);  // unlike clearAll it leaves nothing behind in the id table
    }
  }
  servant->clearAll();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  check_round_trip({reinterpret_cast<const char*>(data), size});
  check_load(data, size);
  return 0;
}
