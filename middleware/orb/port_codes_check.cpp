// Holds the numbers of idl/port_codes.h against those of the interface definition.
#include <iterator>

#include "idl/port_codes.h"
#include "middleware/orb/orb.h"

namespace portsvc {
namespace {

namespace wire = Varo::DT_PORT_SVC;

static_assert(PORT_MASTER == wire::PORT_MASTER && PORT_EVENTBOX == wire::PORT_EVENTBOX &&
              PORT_SLAVE == wire::PORT_SLAVE);
static_assert(CONNECT_CLIENT == wire::CONNECT_CLIENT && CONNECT_OWNER == wire::CONNECT_OWNER);
static_assert(ACCESS_SELECT == wire::ACCESS_SELECT && ACCESS_WAIT == wire::ACCESS_WAIT);
static_assert(remote_client_offset == wire::REMOTE_CLIENT_OFFSET &&
              reply_limit == wire::REPLY_LIMIT);
static_assert(refusal::stopping == wire::refusal::stopping &&
              refusal::blocked_calls == wire::refusal::blocked_calls &&
              refusal::ports == wire::refusal::ports &&
              refusal::clients == wire::refusal::clients &&
              refusal::queued_bytes == wire::refusal::queued_bytes);

struct Pair {
  unsigned int here;
  unsigned int wire;
};

#define PORTSVC_CODE(name) \
  Pair { result::name, wire::result::name }
constexpr Pair codes[] = {
    PORTSVC_CODE(ok),
    PORTSVC_CODE(snapshot_not_writable),
    PORTSVC_CODE(no_such_port),
    PORTSVC_CODE(bad_mode),
    PORTSVC_CODE(out_of_memory),
    PORTSVC_CODE(already_exists),
    PORTSVC_CODE(servant_lock),
    PORTSVC_CODE(no_peer),
    PORTSVC_CODE(peer_disconnect),
    PORTSVC_CODE(peer_forward),
    PORTSVC_CODE(peer_receive),
    PORTSVC_CODE(timed_out),
    PORTSVC_CODE(unknown_name),
    PORTSVC_CODE(queue_empty),
    PORTSVC_CODE(nothing_arrived),
    PORTSVC_CODE(owner_exists),
    PORTSVC_CODE(not_connected),
    PORTSVC_CODE(owner_not_taking),
    PORTSVC_CODE(unknown_handle),
    PORTSVC_CODE(access_refused),
    PORTSVC_CODE(nothing_selected),
    PORTSVC_CODE(port_lock),
    PORTSVC_CODE(already_subscribed),
    PORTSVC_CODE(reply_timed_out),
    PORTSVC_CODE(send_timed_out),
    PORTSVC_CODE(no_consumers),
    PORTSVC_CODE(no_subscriptions),
    PORTSVC_CODE(not_subscribed),
    PORTSVC_CODE(failed),
};
#undef PORTSVC_CODE

constexpr bool same_codes() {
  for (const Pair& code : codes) {
    if (code.here != code.wire || !result_text(code.here)) return false;
  }
  return std::size(codes) == result_texts.size();
}
static_assert(same_codes(), "port_codes.h and the interface definition differ");

}  // namespace
}  // namespace portsvc
