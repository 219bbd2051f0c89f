#include "observe/readable.h"

#include <fmt/format.h>

#include <string_view>

namespace portsvc::observe {
namespace {

/// The length of the UTF-8 sequence that `text` begins with, 0 when it begins with none.
std::size_t sequence_length(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned int first = byte(0);
  if (first < 0x80) return 1;
  const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
  }
  // Overlong forms, surrogates, what is above the last code point; and the control characters
  // beyond ASCII, by which some terminals are commanded as well.
  const unsigned int second = byte(1);
  if ((first == 0xc2 && second < 0xa0) || (first == 0xe0 && second < 0xa0) ||
      (first == 0xed && second > 0x9f) || (first == 0xf0 && second < 0x90) ||
      (first == 0xf4 && second > 0x8f)) {
    return 0;
  }
  return length;
}

}  // namespace

std::string readable(const std::string& name) {
  std::string text;
  text.reserve(name.size());
  for (std::string_view rest = name; !rest.empty();) {
    const std::size_t length = sequence_length(rest);
    const auto byte = static_cast<unsigned char>(rest[0]);
    if (length == 0 || byte < 0x20 || byte == 0x7f) {
      text += fmt::format("\\x{:02x}", byte);
    } else if (byte == '\\') {
      text += "\\\\";
    } else {
      text += rest.substr(0, length);
    }
    rest.remove_prefix(length == 0 ? 1 : length);
  }
  return text;
}

}  // namespace portsvc::observe
