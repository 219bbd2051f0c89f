#include "tools/output.h"

#include <fmt/core.h>

#include <algorithm>
#include <boost/archive/iterators/base64_from_binary.hpp>
#include <boost/archive/iterators/transform_width.hpp>
#include <cerrno>
#include <system_error>

#include "tools/errors.h"
#include "tools/input.h"

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
  throw Failure(
      fmt::format("cannot write to standard output: {}", std::generic_category().message(errno)));
}

std::string dump(const Json& document, int indent) {
  return document.dump(indent, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

void write_output(std::string_view bytes) {
  if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size()) output_failed();
}

void flush_output() {
  if (std::fflush(stdout) != 0) output_failed();
}

void print_json(const Json& document) { write_output(dump(document, 2) + "\n"); }

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

Json payload_json(const std::string& bytes) {
  Json object{{"size", bytes.size()}};
  try {
    (void)Json(bytes).dump();  // refuses what is no UTF-8
    object["text"] = bytes;
  } catch (const Json::type_error&) {
    object["base64"] = base64(bytes);
  }
  return object;
}

PayloadPrinter::PayloadPrinter(const Options& options) : options_(options) {
  if (options_.file.empty()) return;
  file_.open(options_.file, std::ios::binary | std::ios::trunc);
  if (!file_) {
    throw UsageError(
        fmt::format("cannot write {}: {}", options_.file, std::generic_category().message(errno)));
  }
}

void PayloadPrinter::print(const Varo::DATA_BUFFER& payload, std::optional<unsigned int> source) {
  const std::string bytes = to_bytes(payload);
  if (file_.is_open()) {
    file_.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  } else if (options_.json) {
    Json object;
    if (source) object["source"] = *source;
    object.update(payload_json(bytes));
    write_output(dump(object, -1) + "\n");
  } else {
    write_output(bytes);
    if (!options_.raw) write_output("\n");
  }
}

void PayloadPrinter::flush() {
  if (file_.is_open() && !file_.flush()) {
    throw Failure(
        fmt::format("cannot write {}: {}", options_.file, std::generic_category().message(errno)));
  }
  flush_output();
}

}  // namespace portsvc::tools
