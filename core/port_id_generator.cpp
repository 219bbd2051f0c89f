#include "core/port_id_generator.h"

#include <ace/Guard_T.h>
#include <ace/Thread_Mutex.h>

#include <random>

namespace portsvc {
namespace {

struct Generator {
  ACE_Thread_Mutex lock;  // guards engine; a leaf
  std::mt19937 engine;
};

Generator& generator() {
  static Generator instance;
  return instance;
}

}  // namespace

void seed_port_ids(unsigned int seed) {
  ACE_GUARD(ACE_Thread_Mutex, guard, generator().lock);
  generator().engine.seed(seed);
}

unsigned int next_port_id() {
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, generator().lock, 0);
  return static_cast<unsigned int>(generator().engine()) >> 1;
}

}  // namespace portsvc
