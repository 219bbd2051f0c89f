#include "ports/buffer.h"

#include <cstring>
#include <utility>

#include "platform/octets.h"

using portsvc::copy_of;

vrBuffer::vrBuffer(unsigned int size, const void* data) : vrBuffer(size, copy_of(data, size)) {}

vrBuffer::vrBuffer(vrBuffer&& other) noexcept
    : data_(std::move(other.data_)), size_(std::exchange(other.size_, 0)) {}

vrBuffer& vrBuffer::operator=(const vrBuffer& other) {
  if (this != &other && other.size_ != 0) assign(other.data_.get(), other.size_);
  return *this;
}

vrBuffer& vrBuffer::operator=(vrBuffer&& other) noexcept {
  if (this != &other && other.size_ != 0) {
    data_ = std::move(other.data_);
    size_ = std::exchange(other.size_, 0);
  }
  return *this;
}

bool vrBuffer::operator==(const vrBuffer& other) const {
  return size_ == other.size_ &&
         (size_ == 0 || std::memcmp(data_.get(), other.data_.get(), size_) == 0);
}

void vrBuffer::assign(const void* data, unsigned int size) {
  data_.reset();  // first, so that old and new payload never stand side by side
  data_ = copy_of(data, size);
  size_ = data_ ? size : 0;
}

std::unique_ptr<unsigned char[]> vrBuffer::release() noexcept {
  size_ = 0;
  return std::move(data_);
}

vrPort_Buffer& vrPort_Buffer::operator=(const vrPort_Buffer& other) {
  vrBuffer::operator=(other);
  handle_ = other.handle_;
  return *this;
}

vrPort_Buffer& vrPort_Buffer::operator=(vrPort_Buffer&& other) noexcept {
  handle_ = other.handle_;
  vrBuffer::operator=(static_cast<vrBuffer&&>(other));
  return *this;
}
