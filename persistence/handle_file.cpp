#include "persistence/handle_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace portsvc {
namespace {

constexpr char magic[] = {'P', 'O', 'R', 'T', 'O', 'P', 'E', 'N'};

}  // namespace

struct Handle_File::Image {
  char magic[8];
  char text[248];
  std::uint32_t handles[capacity];
};

Handle_File::~Handle_File() {
  if (image_) ::munmap(image_, sizeof(Image));
  if (file_ >= 0) ::close(file_);
}

std::string Handle_File::open(const std::string& path) {
  file_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  struct stat facts {};
  void* mapped = MAP_FAILED;
  // The disk space is taken now: a full disk must not be met by a store.
  if (file_ >= 0 && ::fstat(file_, &facts) == 0 && S_ISREG(facts.st_mode) &&
      ::flock(file_, LOCK_EX | LOCK_NB) == 0 &&
      (errno = ::posix_fallocate(file_, 0, sizeof(Image))) == 0) {
    mapped = ::mmap(nullptr, sizeof(Image), PROT_READ | PROT_WRITE, MAP_SHARED, file_, 0);
  }
  const std::string reason = std::generic_category().message(errno);
  if (mapped == MAP_FAILED) throw std::runtime_error("cannot keep " + path + ": " + reason);
  image_ = static_cast<Image*>(mapped);
  if (std::memcmp(image_->magic, magic, sizeof magic) != 0) {
    std::memset(image_, 0, sizeof(Image));
    std::memcpy(image_->magic, magic, sizeof magic);
  }
  image_->text[sizeof image_->text - 1] = 0;
  find_places();
  return image_->text;
}

void Handle_File::find_places() {
  places_.clear();
  free_.clear();
  free_.reserve(capacity);
  for (std::uint32_t place = capacity; place-- > 0;) {
    const unsigned int handle = image_->handles[place];
    if (handle == 0 || !places_.emplace(handle, place).second) {
      image_->handles[place] = 0;
      free_.push_back(place);
    }
  }
}

std::vector<unsigned int> Handle_File::handles() const {
  std::vector<unsigned int> all;
  for (const auto& entry : places_) all.push_back(entry.first);
  return all;
}

void Handle_File::begin(const std::string& text) {
  if (!image_) return;
  std::memset(image_->handles, 0, sizeof image_->handles);
  std::memset(image_->text, 0, sizeof image_->text);
  std::memcpy(image_->text, text.data(), std::min(text.size(), sizeof image_->text - 1));
  find_places();
}

void Handle_File::add(unsigned int handle) {
  if (!image_ || free_.empty()) return;
  const std::uint32_t place = free_.back();
  places_[handle] = place;
  free_.pop_back();
  image_->handles[place] = handle;
}

void Handle_File::remove(unsigned int handle) {
  const auto found = places_.find(handle);
  if (found == places_.end()) return;
  image_->handles[found->second] = 0;
  free_.push_back(found->second);
  places_.erase(found);
}

}  // namespace portsvc
