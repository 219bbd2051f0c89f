// Whether the caller of the operation that a thread carries out is still there.
#pragma once

#include <string>
#include <utility>

namespace portsvc {

/// The caller of a remote call, as the broker knows it. A blocked call asks now and then, and
/// before it takes something, whether its caller is still there: what a dead caller is given is
/// lost.
class Caller {
 public:
  virtual ~Caller() = default;

  /// True once nobody can receive the call's answer any more. Any thread may ask while the call is
  /// under way. Costs a system call.
  virtual bool gone() const = 0;

  /// The name of the server that calls on behalf of its own callers, if it is one and says so.
  virtual std::string server() const { return {}; }

  /// The caller of the call this thread is carrying out; null when it was made within the process.
  static const Caller* of_this_thread() { return current(); }

  /// While it lives, this thread carries out a call of `caller`.
  class Scope {
   public:
    explicit Scope(const Caller* caller) : outer_(std::exchange(current(), caller)) {}
    ~Scope() { current() = outer_; }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    const Caller* const outer_;
  };

 private:
  static const Caller*& current() {
    thread_local const Caller* caller = nullptr;
    return caller;
  }
};

}  // namespace portsvc
