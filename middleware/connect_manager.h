// Keeps a server in touch with its peer.
#pragma once

#include <ace/Event_Handler.h>
#include <ace/Reactor.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "middleware/orb/orb.h"

/// Watches one peer server. At every beat it finds the peer through vrReferenceContainer, probes it
/// with heart_bit, calls hook 1 when the peer is reached anew, and hook 2 in any case.
///
/// The peer counts as reached anew at the first beat that reaches it, after a beat that did not,
/// and when look_at() takes it for another than before. As it is here that means: when this process
/// has opened a connection to it since the beat before, for the peer may have been restarted in
/// between. Hook 1 may therefore be called once too often, never once too rarely. An entry of the
/// directory that has been changed is followed at the next beat.
///
/// Beats run on the reactor's thread, one at a time, and the next is timed from the end of the one
/// before: a silent peer costs the peer call time-out per beat and piles nothing up. Give the
/// manager a reactor of its own.
///
/// Life: construct, start(), and stop() before the derived class's destructor begins; between
/// those two calls and only then the hooks are called.
class vrConnect_Manager {
 public:
  /// Watches `server` in `realm` (null for none). `self` is the reference by which the peer can
  /// call this server back. The reactor must outlive the manager.
  vrConnect_Manager(const char* server, const char* realm, CORBA::Object_var self,
                    ACE_Reactor* reactor);
  /// Stops, too late for a derived class (see above).
  virtual ~vrConnect_Manager();
  vrConnect_Manager(const vrConnect_Manager&) = delete;
  vrConnect_Manager& operator=(const vrConnect_Manager&) = delete;

  /// Hook 1: the peer has been reached. An answer other than 0 makes the manager take the peer for
  /// lost, so the hook is called again at a later beat.
  virtual unsigned int on_connected(CORBA::Object_var& object) = 0;

  /// Hook 2: a beat.
  virtual void on_heartbeat() = 0;

  /// Time between two beats; 1 s unless set before start().
  void set_period(std::chrono::milliseconds period);

  /// The first beat comes at once. The reactor's thread may be started before or after.
  void start();

  /// Returns when no hook is running and none will be called again. Called from within a hook it
  /// returns at once, and that hook is the last.
  void stop();

  /// The reference given to the constructor, not duplicated.
  CORBA::Object_ptr self() const { return self_; }

 protected:
  /// What a beat has found.
  enum class Seen {
    same,     ///< the peer of the beat before
    another,  ///< another peer, or the same restarted
    nobody,   ///< it does not count as reached
  };
  /// Looks at the peer that has answered the probe. Called by the beats alone.
  virtual Seen look_at(Varo::DT_PORT_SVC::Port_Factory_ptr peer);
  /// Whether the peer counts as reached. Good in the hooks.
  bool reached() const { return reached_; }

 private:
  /// Hands the reactor's timer to the manager.
  class Timer : public ACE_Event_Handler {
   public:
    explicit Timer(vrConnect_Manager& manager) : manager_(manager) {}
    int handle_timeout(const ACE_Time_Value& now, const void* act) override;

   private:
    vrConnect_Manager& manager_;
  };

  void schedule(std::chrono::milliseconds delay);
  void run_beat();
  void beat();
  Varo::DT_PORT_SVC::Port_Factory_ptr probe();

  const std::string server_;
  const std::string realm_;
  const CORBA::Object_var self_;
  ACE_Reactor* const reactor_;
  Timer timer_;
  std::chrono::milliseconds period_{1000};

  // Used by the beats alone.
  bool reached_ = false;
  std::uint64_t connections_seen_ = 0;

  std::mutex lock_;  ///< guards the three below; no hook runs and nothing is taken under it
  std::condition_variable beat_ended_;
  bool running_ = false;
  std::thread::id beating_;  ///< the thread in a beat, no thread's id between two
};
