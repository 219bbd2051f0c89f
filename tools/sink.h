// A stream of payloads: standard output, or a file, device or pipe that the user has named. It
// knows whether somebody can still be shown anything, so that nothing is taken for nobody.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "platform/file.h"
#include "platform/streams.h"

namespace portsvc::tools {

class Sink {
 public:
  /// Opens `file`; an empty name and "-" are standard output. A pipe is waited for until it has a
  /// reader. What stood in a regular file goes before the first payload is taken. Throws UsageError
  /// when it cannot be opened, Interrupted.
  explicit Sink(const std::string& file);
  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;

  /// A terminal or a regular file: it does not go away, so several payloads may be on their way.
  bool is_steady() const { return terminal_ || regular_; }
  bool is_terminal() const { return terminal_; }
  int fd() const { return file_.fd() >= 0 ? file_.fd() : standard_output; }

  /// Waits until something can be written: until a slow reader has made room. Throws ReaderGone,
  /// Failure when a disk or a device is full, Interrupted.
  void wait_for_room();
  /// Writes all of it at once. Throws ReaderGone or Failure.
  void write(std::string_view bytes);
  /// How many of the bytes lie in a pipe, read by nobody yet; also when its reader has gone.
  std::size_t unread() const { return unread_in_pipe(fd()); }

 private:
  [[noreturn]] void failed(const std::error_code& error) const;

  std::string name_;
  File file_;  // closed: it is standard output
  bool terminal_ = false;
  bool regular_ = false;
  bool to_be_emptied_ = false;
  std::size_t largest_ = 0;  // bytes of one write so far
};

/// Watches, in a thread of its own, whether the reader of a pipe has gone, while its owner is
/// blocked in a remote call.
class ReaderWatch {
 public:
  /// `on_gone` is called once, in that thread, when the reader goes. Nothing is watched of a sink
  /// that is steady.
  ReaderWatch(const Sink& sink, std::function<void()> on_gone);
  ~ReaderWatch();
  ReaderWatch(const ReaderWatch&) = delete;
  ReaderWatch& operator=(const ReaderWatch&) = delete;

 private:
  Event_File stop_;  // set when the watch is to end
  std::thread thread_;
};

}  // namespace portsvc::tools
