#include "persistence/snapshot_file.h"

#include <fmt/format.h>

#include <array>
#include <boost/endian/conversion.hpp>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>

#include "platform/process.h"

namespace portsvc::snapshot {
namespace {

void put_u32(std::string& bytes, std::size_t at, std::uint32_t value) {
  boost::endian::store_little_u32(reinterpret_cast<unsigned char*>(bytes.data() + at), value);
}

void append_u32(std::string& bytes, std::uint32_t value) {
  bytes.resize(bytes.size() + sizeof value);
  put_u32(bytes, bytes.size() - sizeof value, value);
}

std::uint32_t u32_at(std::string_view bytes, std::size_t at) {
  return boost::endian::load_little_u32(reinterpret_cast<const unsigned char*>(bytes.data() + at));
}

// The name in a 256-byte field, nothing when it has no terminator.
std::optional<std::string> name_at(std::string_view bytes, std::size_t at) {
  const std::string_view field = bytes.substr(at, name_size);
  const auto end = field.find('\0');
  if (end == std::string_view::npos) return std::nullopt;
  return std::string(field.substr(0, end));
}

// Hands out the pieces of a file one after the other.
class Cursor {
 public:
  explicit Cursor(std::string_view bytes) : bytes_(bytes) {}

  std::size_t position() const { return position_; }
  std::size_t left() const { return bytes_.size() - position_; }

  // The next `size` bytes, empty when fewer are left.
  std::string_view next(std::size_t size) {
    if (left() < size) return {};
    const std::string_view piece = bytes_.substr(position_, size);
    position_ += size;
    return piece;
  }

 private:
  std::string_view bytes_;
  std::size_t position_ = 0;
};

}  // namespace

std::string folder() { return std::filesystem::path(state_folder()) / "SnapShot"; }

Section_Writer::Section_Writer(std::uint32_t marker) {
  append_u32(bytes_, marker);
  append_u32(bytes_, 0);
}

void Section_Writer::add_name(std::string_view name) {
  bytes_.append(name);
  bytes_.append(name_size - name.size(), '\0');
  ++count_;
}

void Section_Writer::add_port(std::string_view name, std::uint32_t kind, std::uint32_t limit,
                              bool persistent) {
  if (!fits(name)) return;
  add_name(name);
  append_u32(bytes_, kind);
  append_u32(bytes_, limit);
  append_u32(bytes_, persistent ? 1 : 0);  // the flag's byte and the padding
}

void Section_Writer::add_subscription(std::uint32_t code, std::string_view name) {
  if (!fits(name)) return;
  append_u32(bytes_, code);
  add_name(name);
}

const std::string& Section_Writer::finish() {
  put_u32(bytes_, 4, count_);
  return bytes_;
}

Content parse(std::string_view bytes) {
  Content content;
  Cursor cursor(bytes);
  const auto broken = [&](const char* what, std::uint32_t index, std::uint32_t count) {
    content.problem = fmt::format("{} record {} of {} breaks off at byte {}", what, index + 1,
                                  count, cursor.position());
  };

  std::string_view header = cursor.next(header_size);
  if (header.empty()) {
    content.problem = fmt::format("the ports header breaks off at byte {}", cursor.position());
    return content;
  }
  content.ports_marker = u32_at(header, 0);
  content.ports_count = u32_at(header, 4);
  for (std::uint32_t i = 0; i < content.ports_count; ++i) {
    const std::string_view record = cursor.next(port_record_size);
    if (record.empty()) {
      broken("port", i, content.ports_count);
      return content;
    }
    auto name = name_at(record, 0);
    if (!name) {
      ++content.unreadable_records;
      continue;
    }
    content.ports.push_back(
        {std::move(*name), u32_at(record, 256), u32_at(record, 260), record[264] != 0});
  }

  header = cursor.next(header_size);
  if (header.empty()) {
    content.problem =
        fmt::format("the subscriptions header breaks off at byte {}", cursor.position());
    return content;
  }
  content.subscriptions_marker = u32_at(header, 0);
  content.subscriptions_count = u32_at(header, 4);
  for (std::uint32_t i = 0; i < content.subscriptions_count; ++i) {
    const std::string_view record = cursor.next(subscription_record_size);
    if (record.empty()) {
      broken("subscription", i, content.subscriptions_count);
      return content;
    }
    auto name = name_at(record, 4);
    if (!name) {
      ++content.unreadable_records;
      continue;
    }
    content.subscriptions.push_back({u32_at(record, 0), std::move(*name)});
  }
  if (cursor.left() != 0) {
    content.problem = fmt::format("{} bytes follow the last record, from byte {}", cursor.left(),
                                  cursor.position());
  }
  return content;
}

bool read_file(const char* path, const char* mode, std::string& bytes) {
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(path, ignored)) return false;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path, mode), &std::fclose);
  if (!file) return false;
  std::array<char, 65536> piece;
  for (;;) {
    const std::size_t read = std::fread(piece.data(), 1, piece.size(), file.get());
    bytes.append(piece.data(), read);
    if (read < piece.size()) return std::ferror(file.get()) == 0;
  }
}

}  // namespace portsvc::snapshot
