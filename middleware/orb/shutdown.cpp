#include "middleware/orb/shutdown.h"

#include <utility>

namespace portsvc::orb {

PatientShutdown::~PatientShutdown() {
  if (thread_.joinable()) thread_.join();
}

bool PatientShutdown::run(CORBA::ORB_ptr orb, std::chrono::milliseconds patience) {
  if (!ended_.valid()) {
    std::promise<void> end;
    ended_ = end.get_future();
    const CORBA::ORB_var mine = CORBA::ORB::_duplicate(orb);
    thread_ = std::thread(
        [mine](std::promise<void> ended) {
          try {
            mine->shutdown(true);
          } catch (const CORBA::Exception&) {
            // Shut down already.
          }
          ended.set_value();
        },
        std::move(end));
  }
  return ended_.wait_for(patience) == std::future_status::ready;
}

}  // namespace portsvc::orb
