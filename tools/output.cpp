#include "tools/output.h"

#include <fmt/chrono.h>
#include <fmt/core.h>

#include <algorithm>
#include <boost/archive/iterators/base64_from_binary.hpp>
#include <boost/archive/iterators/transform_width.hpp>
#include <cerrno>
#include <chrono>
#include <system_error>

#include "tools/errors.h"

namespace portsvc::tools {
namespace {

std::string base64(const std::string& bytes) {
  using namespace boost::archive::iterators;
  using Encoder = base64_from_binary<transform_width<const char*, 6, 8>>;
  std::string text(Encoder(bytes.data()), Encoder(bytes.data() + bytes.size()));
  text.append((3 - bytes.size() % 3) % 3, '=');
  return text;
}

[[noreturn]] void output_failed() {
  if (errno == EPIPE) throw ReaderGone();
  throw Failure(
      fmt::format("cannot write to standard output: {}", std::generic_category().message(errno)));
}

std::string dump(const Json& document, int indent) {
  return document.dump(indent, ' ', false, Json::error_handler_t::replace);
}

bool is_utf8(std::string_view bytes) {
  try {
    (void)Json(bytes).dump();  // refuses what is none
    return true;
  } catch (const Json::type_error&) {
    return false;
  }
}

std::string time_now() {
  const auto now = std::chrono::system_clock::now();
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch());
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z",
                     fmt::gmtime(std::chrono::system_clock::to_time_t(now)), ms.count() % 1000);
}

}  // namespace

void write_output(std::string_view bytes) {
  if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size()) output_failed();
}

void flush_output() {
  if (std::fflush(stdout) != 0) output_failed();
}

void print_json(const Json& document) { write_output(dump(document, 2) + "\n"); }

void print_json_line(const Json& document) {
  write_output(dump(document, -1) + "\n");
  flush_output();
}

std::string printable(std::string_view text) {
  if (text.empty()) return "\"\"";
  std::string line;
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      line += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
    } else {
      line += c;
    }
  }
  return line;
}

void Table::print() const {
  // A name may have thousands of characters: it then stands out instead of widening every line.
  constexpr std::size_t widest = 48;
  std::vector<std::size_t> widths(rows_.front().size(), 0);
  for (const auto& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], std::min(widest, row[i].size()));
    }
  }
  for (const auto& row : rows_) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += i + 1 == row.size() ? row[i] : fmt::format("{:<{}}  ", row[i], widths[i]);
    }
    write_output(line + "\n");
  }
}

std::string shown_on_terminal(std::string_view text) {
  std::string shown;
  for (std::size_t i = 0; i < text.size();) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const std::size_t length = byte < 0x80 ? 1 : byte < 0xe0 ? 2 : byte < 0xf0 ? 3 : 4;
    const std::string_view character = text.substr(i, length);
    const bool control = (byte < 0x20 && byte != '\n' && byte != '\t') || byte == 0x7f ||
                         (byte == 0xc2 && static_cast<unsigned char>(character.back()) < 0xa0);
    if (!control && is_utf8(character)) {
      shown += character;
      i += length;
    } else {
      shown += fmt::format("\\x{:02x}", byte);
      ++i;
    }
  }
  return shown;
}

Json payload_json(const std::string& bytes) {
  Json object{{"size", bytes.size()}};
  if (is_utf8(bytes)) {
    object["text"] = bytes;
  } else {
    object["base64"] = base64(bytes);
  }
  return object;
}

PayloadPrinter::PayloadPrinter(const Options& options) : options_(options), sink_(options.file) {
  if (!options_.file.empty()) {
    options_.raw = true;
    options_.json = false;
  }
}

std::size_t PayloadPrinter::print(std::string_view payload, const std::string& port,
                                  std::optional<unsigned int> source) {
  std::string bytes(payload);
  if (options_.json) {
    Json object;
    if (options_.timestamps) object["time"] = time_now();
    if (options_.names) object["box"] = port;
    if (source) object["source"] = *source;
    object.update(payload_json(bytes));
    bytes = dump(object, -1) + "\n";
  } else if (!options_.raw) {
    std::string line;
    if (options_.timestamps) line += time_now() + "  ";
    if (options_.names) line += printable(port) + "  ";
    line += sink_.is_terminal() ? shown_on_terminal(bytes) : bytes;
    bytes = line + "\n";
  }
  sink_.write(bytes);
  return bytes.size();
}

}  // namespace portsvc::tools
