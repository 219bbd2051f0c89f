#include "platform/mapped_file.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>
#include <system_error>

#include "platform/streams.h"

namespace portsvc {

Mapped_File::Mapped_File(const std::string& path, std::size_t size)
    : file_(path, File::Mode::image), size_(size) {
  const auto failed = [](int error) { throw std::system_error(error, std::generic_category()); };
  if (!is_regular_file(file_.fd())) failed(EINVAL);
  if (!file_.lock()) failed(EWOULDBLOCK);
  if (const int error = ::posix_fallocate(file_.fd(), 0, static_cast<off_t>(size))) failed(error);
  memory_ = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file_.fd(), 0);
  if (memory_ == MAP_FAILED) failed(errno);
}

Mapped_File::~Mapped_File() { ::munmap(memory_, size_); }

}  // namespace portsvc
