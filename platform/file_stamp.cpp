#include "platform/file_stamp.h"

#include <sys/stat.h>

namespace portsvc {

File_Stamp File_Stamp::of(const std::string& path) {
  struct stat facts {};
  if (::stat(path.c_str(), &facts) != 0) return {};
  return {facts.st_ino, facts.st_size, facts.st_mtim.tv_sec, facts.st_mtim.tv_nsec};
}

}  // namespace portsvc
