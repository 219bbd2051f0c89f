#include "middleware/file_handle.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <limits>
#include <mutex>
#include <new>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "platform/clock.h"

namespace {

using Bytes = std::vector<CORBA::Octet>;
using Image = std::shared_ptr<const Bytes>;

/// The whole file, nothing when it cannot be read or is too long for the interface.
std::optional<Bytes> content_of(const std::string& path) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"),
                                                             &std::fclose);
  if (!file) return std::nullopt;
  constexpr std::size_t limit = std::numeric_limits<CORBA::Long>::max();
  constexpr std::size_t step = 1 << 20;
  Bytes bytes;
  for (;;) {
    const std::size_t held = bytes.size();
    bytes.resize(held + step);
    const std::size_t got = std::fread(bytes.data() + held, 1, step, file.get());
    bytes.resize(held + got);
    if (bytes.size() > limit || std::ferror(file.get())) return std::nullopt;
    if (got < step) break;
  }
  bytes.shrink_to_fit();
  return bytes;
}

}  // namespace

/// What outlives the servant: the bytes, and where the servant is activated.
class FileHandleImpl::Content {
 public:
  void open(Image image, PortableServer::POA_ptr adapter, PortableServer::ObjectId* id) {
    const std::lock_guard<std::mutex> guard(lock_);
    image_ = std::move(image);
    adapter_ = PortableServer::POA::_duplicate(adapter);
    id_ = id;
    last_use_ = portsvc::clock().now();
    open_ = true;
  }

  CORBA::Long read(CORBA::Long offset, CORBA::Long& length, Varo::DATA_BUFFER& data) {
    const std::lock_guard<std::mutex> guard(lock_);
    const CORBA::Long wanted = std::min(length, largest_read);
    length = 0;
    if (!open_ || offset < 0 || wanted < 0) return -1;
    last_use_ = portsvc::clock().now();
    const std::size_t from = std::min(static_cast<std::size_t>(offset), image_->size());
    length = std::min(wanted, static_cast<CORBA::Long>(image_->size() - from));
    data.length(static_cast<CORBA::ULong>(length));
    if (length > 0) std::memcpy(data.get_buffer(), image_->data() + from, data.length());
    return 0;
  }

  CORBA::Long size(CORBA::Long& bytes) {
    const std::lock_guard<std::mutex> guard(lock_);
    bytes = 0;
    if (!open_) return -1;
    bytes = static_cast<CORBA::Long>(image_->size());
    last_use_ = portsvc::clock().now();
    return 0;
  }

  bool is_open() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return open_;
  }

  Image image() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return image_;
  }

  bool idle_at(const ACE_Time_Value& now) const {
    const std::lock_guard<std::mutex> guard(lock_);
    return open_ && now - last_use_ > ACE_Time_Value(idle_limit_seconds);
  }

  /// The servant is gone, so it is in no adapter any more.
  void discard() {
    const std::lock_guard<std::mutex> guard(lock_);
    open_ = false;
    image_.reset();
    adapter_ = PortableServer::POA::_nil();
    id_ = nullptr;
  }

  /// Gives the bytes back and takes the servant out of its adapter, which may destroy it.
  void close() {
    PortableServer::POA_var adapter;
    PortableServer::ObjectId_var id;
    {
      const std::lock_guard<std::mutex> guard(lock_);
      if (!open_) return;
      open_ = false;
      image_.reset();
      adapter = adapter_._retn();
      id = id_._retn();
    }
    try {
      adapter->deactivate_object(id.in());
    } catch (const CORBA::Exception&) {
      // The adapter is being destroyed, which comes to the same.
    }
  }

 private:
  mutable std::mutex lock_;  ///< guards everything below; nothing is taken or called under it
  bool open_ = false;
  Image image_;  ///< shared by the handles of one content; null when closed
  PortableServer::POA_var adapter_;
  PortableServer::ObjectId_var id_;
  ACE_Time_Value last_use_;
};

/// Closes the handles of the process that nobody uses any more.
class FileHandleImpl::Sweeper {
 public:
  static Sweeper& instance() {
    static Sweeper sweeper;
    return sweeper;
  }

  /// The bytes as an image, the newest handle's if that holds the same.
  Image shared(Bytes bytes) {
    Image newest;
    {
      const std::lock_guard<std::mutex> guard(lock_);
      if (!watched_.empty()) newest = watched_.back()->image();
    }
    if (newest && *newest == bytes) return newest;
    return std::make_shared<const Bytes>(std::move(bytes));
  }

  void watch(std::shared_ptr<Content> content) {
    std::vector<std::shared_ptr<Content>> too_many;
    {
      const std::lock_guard<std::mutex> guard(lock_);
      watched_.push_back(std::move(content));
      if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
      wake_.notify_all();
      too_many = take_too_many();
    }
    for (const auto& old : too_many) old->close();
  }

 private:
  // Takes the oldest handles off the list that stand over the limits. The caller holds the lock.
  std::vector<std::shared_ptr<Content>> take_too_many() {
    std::vector<Image> images;
    auto first_kept = watched_.end();
    for (std::size_t handles = 0; first_kept != watched_.begin() && handles < most_handles;
         --first_kept, ++handles) {
      const Image image = (*std::prev(first_kept))->image();
      if (!image || std::find(images.begin(), images.end(), image) != images.end()) continue;
      if (images.size() == most_contents) break;
      images.push_back(image);
    }
    std::vector<std::shared_ptr<Content>> taken(watched_.begin(), first_kept);
    watched_.erase(watched_.begin(), first_kept);
    return taken;
  }

  Sweeper() = default;

  ~Sweeper() {
    {
      const std::lock_guard<std::mutex> guard(lock_);
      stop_ = true;
      wake_.notify_all();
    }
    if (thread_.joinable()) thread_.join();
  }

  void run() {
    std::unique_lock<std::mutex> guard(lock_);
    for (;;) {
      wake_.wait(guard, [this] { return stop_ || !watched_.empty(); });
      wake_.wait_for(guard, std::chrono::seconds(1), [this] { return stop_; });
      if (stop_) return;
      std::vector<std::shared_ptr<Content>> looked_at;
      try {
        looked_at = watched_;
      } catch (const std::bad_alloc&) {
        continue;
      }
      guard.unlock();
      const ACE_Time_Value now = portsvc::clock().now();
      for (const auto& content : looked_at) {
        if (content->idle_at(now)) content->close();
      }
      guard.lock();
      watched_.erase(std::remove_if(watched_.begin(), watched_.end(),
                                    [](const auto& content) { return !content->is_open(); }),
                     watched_.end());
    }
  }

  std::mutex lock_;  ///< guards what follows; a content's lock may be taken under it
  std::condition_variable wake_;
  bool stop_ = false;
  std::vector<std::shared_ptr<Content>> watched_;  ///< the oldest first
  std::thread thread_;
};

FileHandleImpl::FileHandleImpl(const std::string& path)
    : path_(path), content_(std::make_shared<Content>()) {}

FileHandleImpl::~FileHandleImpl() { content_->discard(); }

bool FileHandleImpl::open() {
  try {
    std::optional<Bytes> bytes = content_of(path_);
    if (!bytes) return false;
    // Activated here, because a handle that closes itself has to know its own id.
    const PortableServer::POA_var adapter = _default_POA();
    content_->open(Sweeper::instance().shared(std::move(*bytes)), adapter.in(),
                   adapter->activate_object(this));
    Sweeper::instance().watch(content_);
    return true;
  } catch (const CORBA::Exception&) {
    return false;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

CORBA::Long FileHandleImpl::read(CORBA::Long offset, CORBA::Long& length,
                                 Varo::DATA_BUFFER_out data) {
  try {
    auto bytes = std::make_unique<Varo::DATA_BUFFER>();
    const CORBA::Long answer = content_->read(offset, length, *bytes);
    data = bytes.release();
    return answer;
  } catch (const std::bad_alloc&) {
    data = new Varo::DATA_BUFFER;
    length = 0;
    return -1;
  }
}

CORBA::Long FileHandleImpl::size(CORBA::Long_out bytes) { return content_->size(bytes); }

void FileHandleImpl::close() { content_->close(); }
