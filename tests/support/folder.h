// A folder of the test's own.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace portsvc {

/// Made anew, and removed with all that is in it.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern =
        std::filesystem::temp_directory_path() / ("portsvc_test." + std::string(6, 'X'));
    if (!::mkdtemp(pattern.data())) std::abort();
    path_ = pattern;
  }
  ~TemporaryFolder() { std::filesystem::remove_all(path_); }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string path() const { return path_; }
  std::string path(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

inline std::string read_all(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

inline void write_all(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

}  // namespace portsvc
