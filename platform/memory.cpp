#include "platform/memory.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>

namespace portsvc {

void keep_freed_memory() {
  constexpr int mebibyte = 1 << 20;
  // Called before there are threads, as the header asks.
  // NOLINTBEGIN(concurrency-mt-unsafe)
  ::mallopt(M_MMAP_THRESHOLD, 32 * mebibyte);  // the largest the allocator accepts
  ::mallopt(M_TRIM_THRESHOLD, 256 * mebibyte);
  ::mallopt(M_TOP_PAD, mebibyte);
  // NOLINTEND(concurrency-mt-unsafe)
}

void return_freed_memory() { ::malloc_trim(0); }

unsigned long long available_memory() {
  unsigned long long memory = static_cast<unsigned long long>(::sysconf(_SC_PHYS_PAGES)) *
                              static_cast<unsigned long long>(::sysconf(_SC_PAGESIZE));
  for (const char* const path :
       {"/sys/fs/cgroup/memory.max", "/sys/fs/cgroup/memory/memory.limit_in_bytes"}) {
    unsigned long long limit = 0;  // a group without one has a word or a huge number there
    if (std::ifstream(path) >> limit) memory = std::min(memory, limit);
  }
  return memory;
}

unsigned long long resident_memory() {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen("/proc/self/statm", "r"),
                                                             &std::fclose);
  unsigned long long size = 0;
  unsigned long long resident = 0;
  if (!file || std::fscanf(file.get(), "%llu %llu", &size, &resident) != 2) return 0;
  return resident * static_cast<unsigned long long>(::sysconf(_SC_PAGESIZE));
}

}  // namespace portsvc
