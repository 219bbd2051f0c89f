#include "persistence/snapshot_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "idl/port_codes.h"
#include "persistence/whole_file.h"
#include "tests/support/folder.h"
#include "tests/support/snapshots.h"

namespace portsvc::snapshot {
namespace {

std::string u32(std::uint32_t value) {
  std::string bytes;
  for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(value >> shift);
  return bytes;
}

std::string field(std::string name) {
  name.resize(256, '\0');
  return name;
}

std::string port_record(const std::string& name, std::uint32_t kind, std::uint32_t limit,
                        char persistent) {
  return field(name) + u32(kind) + u32(limit) + persistent + std::string(3, '\0');
}

std::string subscription_record(std::uint32_t code, const std::string& name) {
  return u32(code) + field(name);
}

// Two ports, one of them a box, and two subscriptions.
std::string sample() {
  return u32(10005) + u32(2) + port_record("p", 30005, 8, 0) +
         port_record("box", 30006, 0xFFFFFFFF, 1) + u32(10007) + u32(2) +
         subscription_record(0x80000000, "box") + subscription_record(7, "other");
}

TEST(SnapshotFile, IsWrittenByteForByteAndReadBack) {
  Section_Writer ports(ports_marker);
  Section_Writer subscriptions(subscriptions_marker);
  EXPECT_EQ(ports.finish() + subscriptions.finish(), u32(10005) + u32(0) + u32(10007) + u32(0));
  ports.add_port("p", PORT_MASTER, 8, false);
  ports.add_port(std::string(256, 'n'), PORT_MASTER, 8, false);
  ports.add_port("box", PORT_EVENTBOX, 0xFFFFFFFF, true);
  subscriptions.add_subscription(0x80000000, "box");
  subscriptions.add_subscription(1, std::string(256, 'n'));
  subscriptions.add_subscription(7, "other");
  EXPECT_EQ(ports.finish() + subscriptions.finish(), sample())
      << "names that do not fit are left out";
  const Content content = parse(sample());
  EXPECT_EQ(all_of(content), "p/30005/8 box/30006/4294967295! 2147483648:box 7:other ");
  EXPECT_EQ(content.problem, "");

  const std::string longest(255, 'n');
  Section_Writer more(ports_marker);
  for (const std::string& name : {longest, std::string()})
    more.add_port(name, PORT_SLAVE, 0, false);
  EXPECT_EQ(all_of(parse(more.finish())), longest + "/30007/0 /30007/0 ");
}

TEST(SnapshotFile, IsReadAsFarAsItsRecordsAreWhole) {
  const std::string whole = sample();
  const std::size_t subscriptions = 8 + 2 * 268;
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const Content content = parse(std::string_view(whole).substr(0, length));
    const std::size_t ports = length < 8 ? 0 : std::min<std::size_t>((length - 8) / 268, 2);
    EXPECT_EQ(content.ports.size(), ports) << length;
    EXPECT_EQ(content.subscriptions.size(),
              length < subscriptions + 8 ? 0 : (length - subscriptions - 8) / 260)
        << length;
    EXPECT_NE(content.problem, "") << length;
  }
}

TEST(SnapshotFile, IsReadByItsCountsWhateverTheySay) {
  // Wrong markers do not matter.
  std::string bytes = sample();
  bytes.replace(0, 4, u32(1));
  bytes.replace(8 + 2 * 268, 4, u32(2));
  EXPECT_EQ(parse(bytes).subscriptions.size(), 2u);
  // Counts of four billion yield what is there, in no more memory than that needs.
  bytes.replace(4, 4, u32(0xFFFFFFFF));
  EXPECT_EQ(parse(bytes).ports.size(), (sample().size() - 8) / 268);
  bytes = u32(10005) + u32(0) + u32(10007) + u32(0xFFFFFFFF) + subscription_record(7, "box");
  const Content content = parse(bytes);
  EXPECT_EQ(all_of(content), "7:box ");
  EXPECT_EQ(content.subscriptions_count, 0xFFFFFFFFu);
  EXPECT_NE(content.problem, "");
  // A count too small leaves bytes over.
  bytes = sample();
  bytes.replace(8 + 2 * 268 + 4, 4, u32(1));
  EXPECT_EQ(parse(bytes).subscriptions.size(), 1u);
  EXPECT_NE(parse(bytes).problem, "");
}

TEST(SnapshotFile, HasMeaninglessBytesAndNamesWithoutAnEnd) {
  std::string bytes = sample();
  bytes[8 + 10] = 'x';          // after the first port's name
  bytes[8 + 264 + 2] = '\xff';  // in its padding
  bytes[8 + 268 + 264] = '\x80';
  EXPECT_EQ(all_of(parse(bytes)), all_of(parse(sample())));
  bytes.replace(8, 256, std::string(256, 'n'));
  bytes.replace(8 + 2 * 268 + 8 + 4, 256, std::string(256, '\xff'));
  const Content content = parse(bytes);
  EXPECT_EQ(all_of(content), "box/30006/4294967295! 7:other ");
  EXPECT_EQ(content.unreadable_records, 2u);
}

TEST(SnapshotFile, IsRewrittenInPlaceWhereTheFolderTakesNoSecondFile) {
  const TemporaryFolder folder;
  const std::string path = folder.path("file");
  write_all(path, "old and longer");
  const uid_t user = ::geteuid();
  const uid_t other = user == 0 ? 65534 : user;  // root may write anywhere
  ASSERT_EQ(::chown(path.c_str(), other, static_cast<gid_t>(-1)), 0);
  ASSERT_EQ(::chmod(folder.path().c_str(), 0555), 0);
  ASSERT_EQ(::seteuid(other), 0);
  const std::string problem = write_whole_file(path, "new");
  const std::string none = write_whole_file(folder.path("none"), "new");
  ASSERT_EQ(::seteuid(user), 0);
  ::chmod(folder.path().c_str(), 0755);
  EXPECT_EQ(problem, "");
  EXPECT_EQ(read_all(path), "new");
  EXPECT_NE(none.find("cannot write"), std::string::npos) << none;
}

}  // namespace
}  // namespace portsvc::snapshot
