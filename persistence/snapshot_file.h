// The snapshot file: a set of ports and event subscriptions as bytes, with no servant in it.
//
// All integers are unsigned 32-bit, little-endian. Two sections stand back to back, without a file
// header, version or checksum:
//
//   ports          0        4  marker, 10005
//                  4        4  number N of records
//                  8  N x 268  records:   0  256  port name, NUL-terminated, NUL-filled
//                                       256    4  kind, the code of the port's own class
//                                       260    4  limit
//                                       264    1  persistent flag of an event box, else 0
//                                       265    3  padding, 0
//   subscriptions  0        4  marker, 10007
//                  4        4  number M of records
//                  8  M x 260  records:   0    4  event code
//                                         4  256  port name, NUL-terminated, NUL-filled
//
// Names longer than 255 bytes do not fit; their records are left out and not counted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace portsvc::snapshot {

constexpr std::uint32_t ports_marker = 10005;
constexpr std::uint32_t subscriptions_marker = 10007;
constexpr std::size_t header_size = 8;
constexpr std::size_t name_size = 256;
constexpr std::size_t port_record_size = 268;
constexpr std::size_t subscription_record_size = 260;

/// Where a server keeps its snapshot: the folder, which lies in its state folder, and the file's
/// name.
std::string folder();
constexpr const char* file_name = "portsnap.snp";

/// True when a name fits a record.
constexpr bool fits(std::string_view name) { return name.size() < name_size; }

struct Port_Record {
  std::string name;
  std::uint32_t kind = 0;
  std::uint32_t limit = 0;
  bool persistent = false;
};

struct Subscription_Record {
  std::uint32_t code = 0;
  std::string name;
};

/// Builds one section in memory. Records whose name does not fit are skipped.
class Section_Writer {
 public:
  explicit Section_Writer(std::uint32_t marker);
  void reserve(std::size_t bytes) { bytes_.reserve(bytes); }
  void add_port(std::string_view name, std::uint32_t kind, std::uint32_t limit, bool persistent);
  void add_subscription(std::uint32_t code, std::string_view name);
  /// The section with the number of records that were added.
  const std::string& finish();

 private:
  void add_name(std::string_view name);
  std::string bytes_;
  std::uint32_t count_ = 0;
};

/// What a file holds. Reading goes by the counts, whatever the markers are, and stops at the first
/// record that is not there whole; memory use follows the file's length, never its counts.
struct Content {
  std::uint32_t ports_marker = 0;
  std::uint32_t ports_count = 0;  // as the file says
  std::vector<Port_Record> ports;
  std::uint32_t subscriptions_marker = 0;
  std::uint32_t subscriptions_count = 0;
  std::vector<Subscription_Record> subscriptions;
  /// Records whose name field has no terminator; they are in neither list.
  std::uint32_t unreadable_records = 0;
  /// Empty when the file was read to its end as its counts say; else where and why it breaks off.
  std::string problem;
};

/// Reads a snapshot from memory. Never fails: a damaged one yields what could be read.
Content parse(std::string_view bytes);

/// Reads the file at `path`, opened for reading and writing as `mode` says ("rb", "r+b"). False
/// when it cannot be opened or read.
bool read_file(const char* path, const char* mode, std::string& bytes);

}  // namespace portsvc::snapshot
