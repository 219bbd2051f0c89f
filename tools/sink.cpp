#include "tools/sink.h"

#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <system_error>
#include <utility>

#include "platform/output_file.h"
#include "tools/errors.h"
#include "tools/interrupt.h"

namespace portsvc::tools {
namespace {

// A pipe without a reader cannot be opened yet.
File open_to_write(const std::string& path) {
  for (;;) {
    try {
      return File(path, File::Mode::sink);
    } catch (const std::system_error& failure) {
      if (failure.code() != std::errc::no_such_device_or_address) {
        throw UsageError(fmt::format("cannot write {}: {}", path, failure.code().message()));
      }
    }
    (void)wait_readable({interrupt_fd()}, std::chrono::milliseconds(50));
    throw_if_interrupted();
  }
}

}  // namespace

Sink::Sink(const std::string& file) : name_(file) {
  if (file.empty() || is_standard_output(file)) {
    name_ = "standard output";
  } else {
    file_ = open_to_write(file);
  }
  regular_ = is_regular_file(fd());
  terminal_ = portsvc::is_terminal(fd());
  to_be_emptied_ = regular_ && fd() != standard_output;
}

void Sink::failed(const std::error_code& error) const {
  if (error == std::errc::broken_pipe) throw ReaderGone();
  throw Failure(fmt::format("cannot write to {}: {}", name_, error.message()));
}

void Sink::wait_for_room() {
  if (std::exchange(to_be_emptied_, false)) {
    try {
      file_.empty();
    } catch (const std::system_error& failure) {
      failed(failure.code());
    }
  }
  if (regular_) {
    constexpr std::size_t least = 16384;
    const auto room = free_disk_space(fd());
    if (room && *room < least + largest_) {
      failed(std::make_error_code(std::errc::no_space_on_device));
    }
    return;
  }
  if (!wait_writable(fd(), interrupt_fd())) throw ReaderGone();
  throw_if_interrupted();
  if (terminal_) return;
  if (const std::error_code failure = would_fail(fd())) failed(failure);
}

void Sink::write(std::string_view bytes) {
  largest_ = std::max(largest_, bytes.size());
  try {
    write_fully(fd(), bytes);
  } catch (const std::system_error& failure) {
    failed(failure.code());
  }
}

ReaderWatch::ReaderWatch(const Sink& sink, std::function<void()> on_gone) {
  if (sink.is_steady()) return;
  thread_ = std::thread([fd = sink.fd(), stop = stop_.fd(), on_gone = std::move(on_gone)] {
    if (wait_until_reader_gone(fd, stop)) on_gone();
  });
}

ReaderWatch::~ReaderWatch() {
  if (!thread_.joinable()) return;
  stop_.set();
  thread_.join();
}

}  // namespace portsvc::tools
