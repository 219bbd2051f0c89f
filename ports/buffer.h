// Payloads inside the server: small owning byte buffers.
#pragma once

#include <memory>

/// A payload. It owns a heap copy of its bytes. A buffer belongs to one thread at a time. When
/// the bytes cannot be allocated, errno is set to ENOMEM and the buffer is empty, with size 0; no
/// exception leaves it.
class vrBuffer {
 public:
  vrBuffer() noexcept = default;
  /// Copies `size` bytes from `data`.
  vrBuffer(unsigned int size, const void* data);
  /// Takes over `bytes`, which hold `size` bytes.
  vrBuffer(unsigned int size, std::unique_ptr<unsigned char[]> bytes) noexcept
      : data_(std::move(bytes)), size_(data_ ? size : 0) {}
  vrBuffer(const vrBuffer& other) : vrBuffer(other.size_, other.data_.get()) {}
  vrBuffer(vrBuffer&& other) noexcept;
  virtual ~vrBuffer() = default;

  /// Copies the other's bytes. An empty source leaves the target as it is.
  virtual vrBuffer& operator=(const vrBuffer& other);
  /// Equal length and equal bytes.
  virtual bool operator==(const vrBuffer& other) const;

  /// As the copying assignment (an empty source leaves the target as it is), but takes the bytes
  /// over instead of copying them.
  vrBuffer& operator=(vrBuffer&& other) noexcept;

  /// Replaces the payload by a copy of `size` bytes from `data`, also when `size` is 0.
  void assign(const void* data, unsigned int size);

  /// The payload, nullptr when empty.
  const unsigned char* data() const { return data_.get(); }
  unsigned int size() const { return size_; }

  /// Hands the bytes over; the buffer is empty afterwards.
  std::unique_ptr<unsigned char[]> release() noexcept;

 private:
  std::unique_ptr<unsigned char[]> data_;  // null exactly when size_ is 0
  unsigned int size_ = 0;
};

/// A payload with the handle of the connection it belongs to: the sending client of a packet, the
/// addressed client of a reply, 0 for an event made by the servant core.
class vrPort_Buffer : public vrBuffer {
 public:
  vrPort_Buffer() noexcept = default;
  vrPort_Buffer(unsigned int handle, unsigned int size, const void* data)
      : vrBuffer(size, data), handle_(handle) {}
  vrPort_Buffer(unsigned int handle, vrBuffer&& payload) noexcept
      : vrBuffer(std::move(payload)), handle_(handle) {}
  vrPort_Buffer(const vrPort_Buffer& other) = default;
  vrPort_Buffer(vrPort_Buffer&& other) noexcept = default;

  using vrBuffer::operator=;
  using vrBuffer::operator==;
  /// Copies handle and bytes. An empty source leaves the payload as it is and sets the handle.
  virtual vrPort_Buffer& operator=(const vrPort_Buffer& other);
  /// Equal handles; the payloads are not compared.
  virtual bool operator==(const vrPort_Buffer& other) const { return handle_ == other.handle_; }

  /// As the copying assignment, but takes the bytes over.
  vrPort_Buffer& operator=(vrPort_Buffer&& other) noexcept;

  unsigned int handle() const { return handle_; }

 private:
  unsigned int handle_ = 0;
};
