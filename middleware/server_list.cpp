#include "middleware/server_list.h"

#include "middleware/directory.h"

namespace Kestrum {

int GetServerNames(const char* role, ServerNameList& list) {
  list.names.clear();
  const portsvc::DirectoryInUse in_use = portsvc::directory_in_use();
  if (!in_use.directory) return -1;
  list.names = in_use.directory->servers(role ? role : "", in_use.realm);
  return 0;
}

}  // namespace Kestrum
