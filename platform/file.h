// Open files of the system.
#pragma once

#include <string>
#include <string_view>

namespace portsvc {

/// The numbers of the streams that a process is started with.
constexpr int standard_input = 0;
constexpr int standard_output = 1;
constexpr int standard_error = 2;

/// An open file, which is closed when this goes. Processes that this one starts do not inherit it.
/// What fails throws std::system_error with the system's reason. Used by one thread at a time.
class File {
 public:
  enum class Mode {
    read,          ///< what is there
    folder,        ///< a folder, to be locked or flushed
    create,        ///< a new file to write; there is none of that name
    rewrite,       ///< to write, made if missing; what stands in it goes
    rewrite_here,  ///< the same, but a symbolic link is refused
    write,         ///< to write, made by nobody: a device
    /// To write, made if missing; what stands in it stays until empty(). A pipe that nobody reads
    /// is refused with no_such_device_or_address.
    sink,
    image,  ///< to read and write, made for this user alone if missing; no symbolic link
  };

  File() noexcept = default;
  File(const std::string& path, Mode mode);
  /// Takes an open file over; a number below 0 is none.
  explicit File(int fd) noexcept : fd_(fd) {}
  ~File();
  File(File&& other) noexcept;
  File& operator=(File&& other) noexcept;

  /// Its number, -1 when it is closed.
  int fd() const { return fd_; }

  /// Closes it now. Some file systems say only then that the disk is full.
  void close();
  /// Has what was written reach the disk. For a folder: the names in it.
  void flush();
  /// Drops what stands in it.
  void empty();
  /// Locks it while it is open, against whoever else locks it. False when somebody has.
  [[nodiscard]] bool lock();

 private:
  int fd_ = -1;
};

/// Both ends of a new pipe.
struct Pipe {
  Pipe();

  File read_end;
  File write_end;
};

/// A flag that waits for files see (platform/streams.h): from the moment it is set it can be read.
class Event_File {
 public:
  Event_File();

  /// Any thread, also a signal handler.
  void set() const noexcept;
  int fd() const { return file_.fd(); }

 private:
  File file_;
};

/// Writes all of `bytes` to an open file, however often the system must be asked. Throws
/// std::system_error with the errno of the write that failed.
void write_fully(int file, std::string_view bytes);

/// Appends to `bytes` what there is to read, or waits for it; nothing when a signal came between.
/// False at the end. Throws std::system_error.
bool read_more(int file, std::string& bytes);

}  // namespace portsvc
