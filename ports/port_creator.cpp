#include "ports/port_creator.h"

#include <boost/make_shared.hpp>

#include "idl/port_codes.h"
#include "ports/event_box.h"
#include "ports/master_port.h"
#include "ports/slave_port.h"

namespace {

template <class Port>
boost::shared_ptr<Port_impl> make(const char* name, unsigned int port_id, unsigned int limit,
                                  Port_Factory_i* servant) {
  return boost::make_shared<Port>(name, port_id, limit, servant);
}

}  // namespace

boost::shared_ptr<Port_impl> vrPort_Creator::create(const char* name, unsigned int port_id,
                                                    unsigned int limit, unsigned int kind,
                                                    Port_Factory_i* servant) const {
  const auto maker = kinds_.find(kind);
  if (maker == kinds_.end()) return {};
  return maker->second(name, port_id, limit, servant);
}

void vrMainPort_Creator::register_kinds() {
  kinds_.emplace(PORT_MASTER, &make<vrMaster_Port>);
  kinds_.emplace(PORT_SLAVE, &make<vrSlave_Port>);
  kinds_.emplace(PORT_EVENTBOX, &make<vrEventBox>);
}

void vrSubPort_Creator::register_kinds() {
  kinds_.emplace(PORT_SLAVE, &make<vrMaster_Port>);
  kinds_.emplace(PORT_MASTER, &make<vrSlave_Port>);
  kinds_.emplace(PORT_EVENTBOX, &make<vrEventBox>);
}
