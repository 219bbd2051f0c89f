#include "client/link.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <utility>

#include "middleware/orb/wire_bytes.h"

namespace portsvc::client::detail {
namespace {

using std::chrono::steady_clock;

// A server closes what has been idle for three minutes.
constexpr std::chrono::seconds time_between_beats(45);

// How long a call that stands for the life of its server is watched: the end of a connection is
// known on this side before another to the same address can be opened, but its caller may not have
// run yet.
constexpr std::chrono::milliseconds time_to_notice(10);

// A request of this size is too large for hardly any server.
constexpr std::size_t hardly_too_large = 32 << 10;

// The last failure of this thread, as the broker has told it.
struct Last_Failure {
  orb::Failing kind = orb::Failing::other;
  std::string words;
};
thread_local Last_Failure last_failure;

}  // namespace

std::shared_ptr<orb::Broker> broker_for(const Options& options) {
  static std::mutex lock;  // guards what follows; held while a broker starts
  static std::weak_ptr<orb::Broker> shared;
  static Options chosen;
  const std::lock_guard<std::mutex> guard(lock);
  if (auto broker = shared.lock()) {
    if (options.max_message != chosen.max_message ||
        options.tls.authorities != chosen.tls.authorities || options.tls.key != chosen.tls.key) {
      throw std::invalid_argument(
          "the connections of a process have the same largest message and the same TLS");
    }
    return broker;
  }
  if (orb::Broker* const serving = orb::Broker::running()) {
    return {std::shared_ptr<void>(), serving};
  }
  orb::Options settings;
  settings.max_message = options.max_message;
  settings.tls = {options.tls.authorities, options.tls.key};
  settings.trace = options.trace;
  orb::set_peer_call_timeout(options.call_timeout);
  try {
    auto broker = std::make_shared<orb::Broker>(settings);
    shared = broker;
    chosen = options;
    return broker;
  } catch (const orb::Error& error) {
    throw Error(error.what(), Result(failure::bad_options));
  }
}

std::shared_ptr<Directory> directory_for(const orb::Broker& broker, const Options& options) {
  try {
    if (!options.directory.empty()) return open_file_directory(broker, options.directory);
    if (!options.naming.empty()) return open_naming_directory(broker, options.naming);
  } catch (const orb::Error& error) {
    throw Error(error.what(), Result(failure::bad_address));
  }
  return nullptr;
}

Result result_of(const CORBA::Exception& exception) {
  last_failure = {orb::kind_of(exception), orb::describe(exception)};
  const auto* const system = CORBA::SystemException::_downcast(&exception);
  if (!system) return Result(failure::broker);
  if (refusal_text(system->minor())) return Result(system->minor());
  if (CORBA::MARSHAL::_downcast(&exception)) return Result(failure::too_large);
  if (CORBA::OBJECT_NOT_EXIST::_downcast(&exception) || CORBA::INV_OBJREF::_downcast(&exception) ||
      CORBA::BAD_OPERATION::_downcast(&exception) || CORBA::BAD_PARAM::_downcast(&exception) ||
      CORBA::OBJ_ADAPTER::_downcast(&exception)) {
    return Result(failure::no_service);
  }
  if (CORBA::TRANSIENT::_downcast(&exception) || CORBA::COMM_FAILURE::_downcast(&exception) ||
      CORBA::TIMEOUT::_downcast(&exception)) {
    return Result(system->completed() == CORBA::COMPLETED_NO ? failure::unreachable
                                                             : failure::lost);
  }
  return Result(failure::broker);
}

orb::Failing last_failing() { return last_failure.kind; }

const std::string& last_words() { return last_failure.words; }

void show(Varo::DATA_BUFFER& data, Bytes bytes) {
  if (bytes.size() == 0) return;
  const auto size = static_cast<CORBA::ULong>(bytes.size());
  auto* const octets = static_cast<CORBA::Octet*>(const_cast<void*>(bytes.data()));
  data.replace(size, size, octets, false);  // nothing is written through it
}

Payload payload_of(const Varo::DATA_BUFFER& data) {
  orb::Octets octets = orb::take(data, true);
  if (octets.size == 0 && data.length() != 0) throw std::bad_alloc();
  return {std::move(octets.bytes), octets.size};
}

// --- Lives

std::atomic<std::uint64_t> Lives::last_number_{0};

std::shared_ptr<Lives> Lives::at(const std::string& address, Port_Factory_ptr server) {
  static std::mutex lock;  // guards known; nothing is called under it
  static std::map<std::string, std::weak_ptr<Lives>> known;
  const std::lock_guard<std::mutex> guard(lock);
  for (auto entry = known.begin(); entry != known.end();) {
    entry = entry->second.expired() ? known.erase(entry) : std::next(entry);
  }
  auto& entry = known[address];
  auto lives = entry.lock();
  if (!lives) entry = lives = std::make_shared<Lives>(server);
  return lives;
}

Lives::Lives(Port_Factory_ptr server)
    : server_(Port_Factory::_duplicate(server)), beats_([this] { keep_open(); }) {}

Lives::~Lives() {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    ending_ = true;
  }
  end_.notify_all();
  beats_.join();
}

void Lives::keep_open() {
  std::unique_lock<std::mutex> lock(lock_);
  while (!end_.wait_for(lock, time_between_beats, [this] { return ending_; })) {
    lock.unlock();
    bool refused = false;
    (void)probe(server_.in(), orb::peer_call_timeout(), &refused);
    lock.lock();
  }
}

class Lives::Under_Way {
 public:
  explicit Under_Way(Lives& lives) : lives_(lives) {
    ++lives_.under_way_;
    ++lives_.begun_;
  }
  ~Under_Way() { --lives_.under_way_; }
  Under_Way(const Under_Way&) = delete;
  Under_Way& operator=(const Under_Way&) = delete;

  Result failed(const CORBA::Exception& exception) {
    const Result result = result_of(exception);
    if (result == failure::lost) ++lives_.broken_;
    return result;
  }

 private:
  Lives& lives_;
};

Result Lives::call(Port_Factory_ptr server, std::chrono::milliseconds limit,
                   std::optional<std::uint64_t> life, std::size_t bytes,
                   const std::function<unsigned int(Port_Factory_ptr)>& call) {
  for (int lost = 0;;) {
    bool refused = false;
    {
      Under_Way counted(*this);
      const orb::CallTimeout timeout(limit);
      const orb::OpenConnectionsOnly only(refused);
      try {
        if (life && *life != number()) return stale;
        return Result(call(server));
      } catch (const CORBA::Exception& exception) {
        const Result failed = counted.failed(exception);
        if (!refused) return failed;
      }
      if (only.had_connection()) ++lost;
    }
    // One connection may have been dead. A server that answers, and closes one after the other upon
    // this message, finds it too large.
    if (lost > (bytes > hardly_too_large ? 2 : 50)) return Result(failure::too_large);
    if (const Result opened = open(server, limit); !opened) return opened;
  }
}

Result Lives::probe(Port_Factory_ptr server, std::chrono::milliseconds limit, bool* refused) {
  Under_Way counted(*this);
  try {
    const orb::CallTimeout timeout(limit);
    CORBA::ULong unused = 0;
    if (!refused) return Result(server->gen_evc_code(unused));
    const orb::OpenConnectionsOnly only(*refused);
    return Result(server->gen_evc_code(unused));
  } catch (const CORBA::Exception& exception) {
    const Result failed = counted.failed(exception);
    // It is only the probe that may have been carried out.
    return failed == failure::lost ? Result(failure::unreachable) : failed;
  }
}

bool Lives::begin_another(std::uint64_t number) {
  return number_.compare_exchange_strong(number, ++last_number_);
}

Result Lives::open(Port_Factory_ptr server, std::chrono::milliseconds limit) {
  for (;;) {
    const std::uint64_t number = number_;
    const std::uint64_t broken = broken_;
    const std::uint64_t begun = begun_;
    const bool alone = under_way_ == 0;
    bool refused = false;
    const Result reached = probe(server, limit, &refused);
    if (!refused) return reached;  // one has become free
    const bool still_alone = begun_ == begun + 1;
    if (alone && !still_alone) continue;
    if (alone) {
      // None is open. The life first: a call that names a handle must not find the new connection.
      if (!begin_another(number)) continue;
      return probe(server, limit, nullptr);
    }
    const Result opened = probe(server, limit, nullptr);
    if (!opened) return opened;
    std::this_thread::sleep_for(time_to_notice);
    if (broken_ != broken) begin_another(number);
    return opened;
  }
}

// --- Link

Link::Link(const std::string& server, const Options& options)
    : server_(server),
      options_(options),
      broker_(broker_for(options)),
      directory_(directory_for(*broker_, options)) {
  const Result reached = call([](Port_Factory_ptr port_service) {
    CORBA::ULong unused = 0;
    return static_cast<unsigned int>(port_service->gen_evc_code(unused));
  });
  if (!reached) throw Error(explain(reached), reached);
}

Result Link::look_up(CORBA::Object_var& object) {
  const bool tls = !options_.tls.authorities.empty();
  if (const auto text = orb::reference_text(server_, tls)) {
    try {
      object = broker_->from_text(*text);
    } catch (const orb::Error& error) {
      // The text of a corbaname is looked up at once, so what failed is that look-up.
      const bool name = text->compare(0, 10, "corbaname:") == 0;
      last_failure = {orb::Failing::other, error.what()};
      return Result(name ? failure::unreachable : failure::bad_address);
    }
    return Result();
  }
  if (!directory_) {
    last_failure = {
        orb::Failing::other,
        fmt::format("'{}' is no reference and no HOST:PORT; a server's name takes a directory or a "
                    "naming service",
                    server_)};
    return Result(failure::bad_address);
  }
  object = directory_->resolve(server_, options_.realm);
  return Result(CORBA::is_nil(object.in()) ? failure::not_listed : result::ok);
}

Result Link::target(Target& target) {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    if (target_.lives) {
      target = target_;
      return Result();
    }
  }
  CORBA::Object_var object;
  if (const Result found = look_up(object); !found) return found;
  try {
    // Unchecked: a check would be a call, over a connection of its own making.
    target.server = Port_Factory::_unchecked_narrow(object.in());
    target.lives = Lives::at(broker_->corbaloc(target.server.in()), target.server.in());
  } catch (const CORBA::Exception& exception) {
    return result_of(exception);
  } catch (const orb::Error&) {
    last_failure = {orb::Failing::not_connected, "the reference has no address for this side"};
    return Result(failure::unreachable);
  }
  const std::lock_guard<std::mutex> guard(lock_);
  if (!target_.lives) target_ = target;
  latest_ = target_.server;
  target = target_;
  return Result();
}

void Link::forget() {
  if (!directory_ && server_.compare(0, 10, "corbaname:") != 0) return;
  Target forgotten;
  const std::lock_guard<std::mutex> guard(lock_);
  std::swap(forgotten, target_);
}

Result Link::run(std::optional<std::uint64_t> life, std::chrono::milliseconds limit,
                 std::size_t bytes, const Call& call) {
  Target now;
  if (const Result found = target(now); !found) return found;
  const Result result = now.lives->call(now.server.in(), limit, life, bytes, call);
  // After a restart the server may have another address.
  if (result == failure::unreachable || result == failure::lost || result == failure::no_service) {
    forget();
  }
  return result;
}

Result Link::say_farewell(std::optional<std::uint64_t> life, const Call& call) noexcept try {
  constexpr std::chrono::milliseconds patience{2000};
  return run(life, std::min(patience, options_.call_timeout), 0, call);
} catch (const std::exception&) {
  return Result(failure::broker);  // lack of memory: the server is told nothing
}

std::uint64_t Link::life() {
  Target now;
  return target(now) ? now.lives->number() : 0;
}

Port_Factory_var Link::reference() {
  Target now;
  check(server_, target(now));
  return now.server;
}

void Link::check(const std::string& what, Result result) {
  if (result) return;
  if (result_text(result.code()) || result == failure::cancelled) result.check(what);
  throw Error(fmt::format("{}: {}", what, explain(result)), result);
}

void Link::cancel() {
  cancelled_ = true;
  wake();
}

void Link::wake() {
  { const std::lock_guard<std::mutex> guard(lock_); }  // nobody is between a test and a pause
  changed_.notify_all();
}

bool Link::pause(std::chrono::milliseconds time, const Ended& ended) {
  std::unique_lock<std::mutex> lock(lock_);
  return !changed_.wait_for(lock, time, [&] { return ended() || cancelled(); });
}

// --- Wait

Wait::Wait(Link& link, Link::Ended ended, Timeout timeout)
    : link_(link),
      ended_(std::move(ended)),
      end_(timeout.is_forever() ? std::nullopt
                                : std::make_optional(steady_clock::now() + timeout.seconds())) {}

bool Wait::over() const {
  constexpr std::chrono::milliseconds rest{50};
  return end_ && steady_clock::now() + rest >= *end_;
}

std::chrono::seconds Wait::left(std::chrono::seconds most) const {
  if (!end_) return most;
  const auto left = std::chrono::ceil<std::chrono::seconds>(*end_ - steady_clock::now());
  return std::clamp(left, std::chrono::seconds(1), most);
}

bool Wait::goes_on_after(Result failure, bool repeatable) {
  if (!failure.may_pass()) return false;
  const bool perhaps_done =
      failure == failure::lost || failure == result::peer_receive || failure == result::failed;
  if (perhaps_done && !repeatable) return false;
  if (!link_.options().reconnect) return false;
  auto time = pause_;
  if (end_) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(*end_ - steady_clock::now());
    if (left <= std::chrono::milliseconds(0)) return false;
    time = std::min(time, left);
  }
  if (!std::exchange(lost_, true) && link_.options().on_lost) link_.options().on_lost(failure);
  pause_ = std::min(pause_ * 2, longest);
  return link_.pause(time, ended_);
}

void Wait::got_through() {
  pause_ = shortest;
  if (std::exchange(lost_, false) && link_.options().on_found) link_.options().on_found();
}

}  // namespace portsvc::client::detail
