#include "middleware/directory.h"

#include <mutex>
#include <utility>

#include "middleware/reference_container.h"

namespace portsvc {
namespace {

std::mutex in_use_lock;  // guards in_use; nothing is taken under it
DirectoryInUse in_use;

}  // namespace

void use_directory(std::shared_ptr<Directory> directory, const std::string& realm) {
  {
    const std::lock_guard<std::mutex> guard(in_use_lock);
    std::swap(in_use.directory, directory);
    in_use.realm = realm;
  }
  vrReferenceContainer::instance()->ReleaseAll();
}

DirectoryInUse directory_in_use() {
  const std::lock_guard<std::mutex> guard(in_use_lock);
  return in_use;
}

}  // namespace portsvc
