// The servant of a file opened for remote reading.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "middleware/orb/orb.h"

/// Serves the content that a file had when it was opened, whatever is written to it later: files
/// may be rewritten in place, so the content is kept in memory, once for all handles that show it.
///
/// Make one, open() it, and hand out `_this()`; the adapter then owns it. It leaves the adapter,
/// and gives its copy back, when the reader closes it or has not used it for five minutes. Every
/// operation may be called from any thread.
class FileHandleImpl : public virtual POA_Varo::FileHandle,
                       public virtual PortableServer::RefCountServantBase {
 public:
  /// Most that one read delivers; far below any message limit in use.
  static constexpr CORBA::Long largest_read = 1 << 20;
  /// Seconds without a use after which a handle closes itself.
  static constexpr int idle_limit_seconds = 300;
  /// Handles that a process keeps open, and different contents they show. Beyond either the oldest
  /// handles close themselves.
  static constexpr std::size_t most_handles = 1000;
  static constexpr std::size_t most_contents = 4;

  explicit FileHandleImpl(const std::string& path);

  /// Reads the file and activates the servant in its default adapter. False when the file cannot
  /// be opened for reading, is 2 GiB or longer, or there is no adapter; then the handle is unused
  /// and may be dropped. Called once.
  bool open();

  /// Up to `length` bytes from `offset`, at most largest_read. `length` becomes the number
  /// delivered: 0 at and beyond the end. Answers 0; or -1 with nothing delivered when an argument
  /// is negative, the handle is closed or memory is short. `data` is always a fresh value.
  CORBA::Long read(CORBA::Long offset, CORBA::Long& length, Varo::DATA_BUFFER_out data) override;

  /// Answers 0 and the length of the file, or -1 and 0 when the handle is closed.
  CORBA::Long size(CORBA::Long_out bytes) override;

  /// Closes the handle; its reference is dead from then on.
  void close() override;

 protected:
  ~FileHandleImpl() override;

 private:
  class Content;
  class Sweeper;

  const std::string path_;
  const std::shared_ptr<Content> content_;
};
