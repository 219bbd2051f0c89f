#include "server/server.h"

#include <ace/Reactor.h>
#include <ace/Select_Reactor.h>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "idl/port_codes.h"
#include "middleware/directory.h"
#include "observe/endpoint.h"
#include "persistence/background_tasks.h"
#include "platform/clock.h"
#include "platform/limits.h"
#include "platform/log.h"
#include "platform/memory.h"
#include "platform/process.h"
#include "platform/version.h"
#include "platform/wake.h"
#include "roles/port_connect_manager.h"
#include "roles/port_factory_main.h"
#include "roles/port_factory_sub.h"
#include "server/announcement.h"
#include "server/feed.h"
#include "server/heartbeat.h"
#include "server/log.h"
#include "server/messages.h"
#include "server/state_files.h"

namespace portsvc::server {
namespace {

/// Calls that have not ended by then are left behind.
constexpr std::chrono::seconds patience_with_calls(3);

/// A server that has grown large gives back now and then what it has freed since.
constexpr unsigned int seconds_between_sweeps = 60;
constexpr unsigned long long large_memory = 256ULL << 20;

template <typename Servant>
using Servant_var = PortableServer::Servant_var<Servant>;

/// Puts the directory of the options in use for the process.
class UseOfDirectory {
 public:
  UseOfDirectory(const orb::Broker& broker, const Options& options) {
    if (!options.directory.empty()) {
      directory_ = open_file_directory(broker, options.directory, [](const std::string& why) {
        log(Log_Level::warning, "directory", why);
      });
    } else if (!options.naming.empty()) {
      directory_ = open_naming_directory(broker, options.naming);
    }
    use_directory(directory_, options.realm);
  }
  /// The references it led to go before the broker does.
  ~UseOfDirectory() { use_directory(nullptr, ""); }
  UseOfDirectory(const UseOfDirectory&) = delete;
  UseOfDirectory& operator=(const UseOfDirectory&) = delete;

  const std::shared_ptr<Directory>& directory() const { return directory_; }

 private:
  std::shared_ptr<Directory> directory_;
};

/// Keeps a sub server in touch with its main server, on a reactor thread of its own.
class ConnectionToMain {
  /// Reports at every beat what this server has come to keep itself: whoever asks the main server
  /// for such a port is led here.
  class Manager : public vrPortConnect_Manager {
   public:
    Manager(const Options& options, Port_Factory_Sub* servant, ACE_Reactor* reactor)
        : vrPortConnect_Manager(options.main_server.c_str(), options.realm.c_str(), servant,
                                reactor),
          servant_(servant) {}
    ~Manager() override { stop(); }

    void on_heartbeat() override {
      vrPortConnect_Manager::on_heartbeat();
      if (!reached()) return;
      for (const std::string& port : servant_->kept_but_unreported()) {
        servant_->set_notify_port(port.c_str());
      }
    }

   private:
    Port_Factory_Sub* const servant_;
  };

 public:
  ConnectionToMain(const Options& options, Port_Factory_Sub* servant)
      : reactor_(new ACE_Select_Reactor, true), manager_(options, servant, &reactor_) {
    manager_.start();
    thread_ = std::thread([this] {
      reactor_.owner(ACE_Thread::self());
      reactor_.run_reactor_event_loop();
    });
  }
  ~ConnectionToMain() {
    manager_.stop();
    reactor_.end_reactor_event_loop();
    thread_.join();
  }
  ConnectionToMain(const ConnectionToMain&) = delete;
  ConnectionToMain& operator=(const ConnectionToMain&) = delete;

 private:
  ACE_Reactor reactor_;
  Manager manager_;
  std::thread thread_;
};

/// Saves snapshots of a servant while it lives.
class PeriodicSnapshots {
 public:
  PeriodicSnapshots(Port_Factory_i* servant, unsigned int every_seconds)
      : servant_(servant), task_(servant) {
    task_.set_period(every_seconds);
    if (task_.activate() != 0) throw std::runtime_error("cannot start the snapshot thread");
  }
  ~PeriodicSnapshots() {
    ask_to_stop();
    task_.wait();
  }
  PeriodicSnapshots(const PeriodicSnapshots&) = delete;
  PeriodicSnapshots& operator=(const PeriodicSnapshots&) = delete;

  void ask_to_stop() { task_.ShutDown(); }

  /// One more, with what has changed since; called once no more calls are taken.
  void save_last() {
    ask_to_stop();
    task_.wait();
    servant_->make_snapshot();
  }

 private:
  Port_Factory_i* const servant_;
  SnapSaveTask task_;
};

orb::Options broker_options(const Options& options) {
  return {options.endpoint, options.max_message, options.trace,
          std::chrono::seconds(options.message_timeout), options.tls};
}

void set_limits(const Options& options) {
  constexpr std::uint64_t usual_connections = 16'000;
  const bool chosen = options.max_connections != 0;
  std::uint64_t connections = chosen ? options.max_connections : usual_connections;
  if (const auto files = most_open_files()) {
    // Some of the files are for connections to other servers and for what the server itself opens.
    const std::uint64_t room = *files - std::min(*files / 2, 64 + *files / 8);
    if (connections > room) {
      if (chosen) {
        log(Log_Level::warning, "limit",
            fmt::format("the limit of {} open files leaves room for {} connections", *files, room));
      }
      connections = room;
    }
  }
  limits().connections.set(connections);
  limits().blocked_calls.set(options.max_blocked_calls);
  limits().ports.set(options.max_ports);
  limits().clients.set(options.max_clients);
  limits().queued_bytes.set(options.max_queued_bytes != 0 ? options.max_queued_bytes
                                                          : available_memory() / 2);
}

void restore(Port_Factory_i* servant, const Found_Snapshot& found) {
  if (found.to_load && servant->load_refsnapshot(found.to_load->c_str()) != result::ok) {
    throw std::runtime_error(fmt::format("cannot load the snapshot {}", *found.to_load));
  }
  log(Log_Level::info, "snapshot", found.message);
}

Servant_var<Port_Factory_i> make_servant(const Options& options, const orb::Broker& broker,
                                         Port_Factory_Main*& main, Port_Factory_Sub*& sub) {
  if (options.role == Role::main) {
    main = new Port_Factory_Main(options.interface_name.c_str());
    main->SetReleam(options.realm.c_str());
    return Servant_var<Port_Factory_i>(main);
  }
  orb::tell_own_name(options.interface_name);
  sub = new Port_Factory_Sub(options.main_server.c_str(), options.interface_name.c_str(),
                             options.realm.empty() ? nullptr : options.realm.c_str(),
                             CORBA::ORB_var(CORBA::ORB::_duplicate(broker.orb())));
  try {
    sub->keep_open_handles_in(state_folder() + "/portopen.dat");
  } catch (const std::runtime_error& error) {
    log(Log_Level::warning, "server",
        std::string(error.what()) + "; killed, this server leaves clients at its main server");
  }
  return Servant_var<Port_Factory_i>(sub);
}

void refuse_itself_as_main(const Options& options, const UseOfDirectory& use,
                           CORBA::Object_ptr self) {
  if (!use.directory()) return;
  const CORBA::Object_var main = use.directory()->resolve(options.main_server, options.realm);
  if (CORBA::is_nil(main.in()) || !main->_is_equivalent(self)) return;
  throw std::runtime_error(fmt::format("the directory's entry of the main server {} is this server",
                                       options.main_server));
}

void end_silent_sub_servers(Port_Factory_Main& main, unsigned int seconds) {
  for (const std::string& name : main.end_silent_sub_servers(seconds)) {
    log(Log_Level::warning, "peer",
        fmt::format("the sub server {} has been silent for {} s: its clients and owners here are "
                    "disconnected",
                    name, seconds));
  }
}

/// Whoever watches the server: metrics, health and board.
class Watched {
 public:
  explicit Watched(const Options& options) {
    if (options.metrics.empty()) return;
    endpoint_.emplace(options.metrics,
                      observe::About{options.name, role_name(options.role), calendar_seconds()},
                      options.other_metrics);
    log(Log_Level::info, "server",
        fmt::format("metrics and board at http://{}/", endpoint_->address()));
    if (!endpoint_->on_loopback()) {
      log(Log_Level::warning, "server",
          fmt::format("everybody who reaches {} can read the names of ports and hosts there",
                      endpoint_->address()));
    }
  }

  using Feeds = std::vector<std::unique_ptr<Feed>>;

  /// Shows the server while it lives.
  class Showing {
   public:
    Showing(Watched& watched, Port_Factory_i* servant, const Feeds& feeds) : watched_(watched) {
      if (!watched_.endpoint_) return;
      watched_.endpoint_->show([servant, &feeds] {
        observe::Observed observed{servant->figures(), {}};
        for (const auto& feed : feeds) observed.feeds.push_back(feed->figures());
        return observed;
      });
    }
    ~Showing() {
      if (watched_.endpoint_) watched_.endpoint_->hide();
    }
    Showing(const Showing&) = delete;
    Showing& operator=(const Showing&) = delete;

   private:
    Watched& watched_;
  };

 private:
  std::optional<observe::Endpoint> endpoint_;
};

Watched::Feeds start_feeds(const Options& options, Port_Factory_Main* main) {
  Watched::Feeds feeds;
  feeds.reserve(options.feeds.size());
  for (const Feed_Option& feed : options.feeds) feeds.push_back(std::make_unique<Feed>(feed, main));
  return feeds;
}

/// What SIGHUP asks for.
void reload(const std::optional<Options>& options, Log& log_file, orb::Broker& broker,
            const UseOfDirectory& use) {
  if (!options) {
    log(Log_Level::error, "server", "not reloaded: the options cannot be read");
    return;
  }
  log_file.reopen(options->log);
  if (use.directory()) use.directory()->read_again();
  try {
    broker.read_certificates_again();
  } catch (const orb::Error& failure) {
    log(Log_Level::error, "tls", fmt::format("the certificates stay: {}", failure.what()));
  }
  log(Log_Level::info, "server", "reloaded: log, directory, certificates");
}

void log_start(const Options& options, const std::string& at) {
  log(Log_Level::info, "server",
      fmt::format("{} {} {} serves at {}{}", role_name(options.role), options.name, version(), at,
                  options.role == Role::sub ? ", main server " + options.main_server : ""));
  log(Log_Level::info, "server",
      fmt::format("limits: {} connections, {} blocked calls, {} ports, {} clients of a port, {} "
                  "queued bytes, messages of {} bytes",
                  limits().connections.most(), limits().blocked_calls.most(), limits().ports.most(),
                  limits().clients.most(), limits().queued_bytes.most(), options.max_message));
  const auto or_none = [](const std::string& text) { return text.empty() ? "none" : text; };
  log(Log_Level::info, "server",
      fmt::format("state folder {}, directory {}, snapshots {}", state_folder(),
                  or_none(options.directory.empty() ? options.naming : options.directory),
                  options.snapshot_every == 0 ? "only when asked for"
                                              : fmt::format("every {} s", options.snapshot_every)));
}

/// Everything from the first call taken to the stop.
void serve(const Options& options, StopSignal& stop, const Reread& reread, Log& log_file,
           orb::Broker& broker, const UseOfDirectory& use, Watched& watched,
           Port_Factory_i* servant, Port_Factory_Main* main, Port_Factory_Sub* sub) {
  const Varo::DT_PORT_SVC::Port_Factory_var reference = broker.serve(servant);
  if (sub) refuse_itself_as_main(options, use, reference.in());
  std::optional<ConnectionToMain> connection;
  if (sub) connection.emplace(options, sub);
  std::optional<Announcement> announcement;
  if (use.directory()) {
    announcement.emplace(use.directory(), options.name, options.realm,
                         options.role == Role::main ? role_main : role_sub, reference.in());
  }
  if (!options.ior_file.empty()) {
    write_by_rename(options.ior_file, broker.to_text(reference.in()) + "\n");
  }
  const std::string status = fmt::format("{} {} serving at {}", role_name(options.role),
                                         options.name, broker.corbaloc(reference.in()));
  fmt::print("port_server: {}\n", status);
  std::fflush(stdout);
  log_start(options, broker.corbaloc(reference.in()));
  std::optional<Heartbeat> heartbeat(std::in_place, broker, reference.in(), status);
  const Watched::Feeds feeds = start_feeds(options, main);
  std::optional<Watched::Showing> showing(std::in_place, watched, servant, feeds);

  unsigned int second = 0;
  for (Asked asked = Asked::nothing; asked != Asked::stop;
       asked = stop.wait_for(std::chrono::seconds(1))) {
    if (asked == Asked::reload) reload(reread(), log_file, broker, use);
    if (main && options.sub_timeout != 0) end_silent_sub_servers(*main, options.sub_timeout);
    if (++second % seconds_between_sweeps == 0 && resident_memory() > large_memory) {
      return_freed_memory();
    }
  }
  log(Log_Level::info, "server", fmt::format("stops: signal {}", stop.stopped_by()));
  heartbeat.reset();
  showing.reset();
  for (const auto& feed : feeds) feed->ask_to_stop();
  announcement.reset();  // nobody new finds the way here
  connection.reset();
}

}  // namespace

void run(const Options& options, StopSignal& stop, const Reread& reread) {
  Log log_file(options.log);
  set_limits(options);
  // First of all the endpoint: a second server started by mistake fails here, before it could
  // delete the snapshot of the first.
  orb::Broker broker(broker_options(options));
  Watched watched(options);
  wake_waits_early(options.waits == "early");
  orb::set_peer_call_timeout(std::chrono::seconds(options.call_timeout));
  const UseOfDirectory use(broker, options);
  if (options.role == Role::sub && !use.directory()) {
    log(Log_Level::warning, "directory",
        "without --directory or --naming the main server cannot be found");
  }
  const State_Folder state(options.state_dir);
  const Found_Snapshot found = set_aside_snapshot(options.restore_damaged ? Restore::damaged
                                                  : options.restore       ? Restore::whole
                                                                          : Restore::no);

  Port_Factory_Main* main = nullptr;
  Port_Factory_Sub* sub = nullptr;
  const Servant_var<Port_Factory_i> servant = make_servant(options, broker, main, sub);
  if (options.restore) restore(servant.in(), found);
  std::optional<PeriodicSnapshots> snapshots;
  if (options.snapshot_every > 0) snapshots.emplace(servant.in(), options.snapshot_every);

  // Callers may wait for as long as they like. What a blocked call still uses must not be
  // destroyed, so with one under way the process ends without destroying anything.
  try {
    serve(options, stop, reread, log_file, broker, use, watched, servant.in(), main, sub);
  } catch (const std::exception& error) {
    if (broker.shutdown(patience_with_calls)) throw;
    tell(error.what());
    end_process(status::failed);
  }
  if (snapshots) snapshots->ask_to_stop();  // it ends beside the calls
  const bool calls_ended = broker.shutdown(patience_with_calls);
  if (snapshots) snapshots->save_last();
  log(Log_Level::info, "server",
      calls_ended ? "stopped" : "stopped, with calls still blocked in it");
  if (!calls_ended) end_process(status::success);
}

void check(const Options& options) {
  orb::Options broker_to_be = broker_options(options);
  orb::check(broker_to_be);
  broker_to_be.endpoint.clear();  // a server of these options may be running
  const orb::Broker broker(broker_to_be);
  const UseOfDirectory use(broker, options);
}

}  // namespace portsvc::server
