#include "persistence/handle_file.h"

#include <algorithm>
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

std::string Handle_File::open(const std::string& path) {
  try {
    file_.emplace(path, sizeof(Image));
  } catch (const std::system_error& failure) {
    throw std::runtime_error("cannot keep " + path + ": " + failure.code().message());
  }
  image_ = static_cast<Image*>(file_->memory());
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
