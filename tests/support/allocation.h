// Memory that runs out when a test says so.
#pragma once

namespace portsvc {

/// Fails one allocation of this thread, of whatever form, after `good` that succeed.
class FailingAllocation {
 public:
  explicit FailingAllocation(int good);
  ~FailingAllocation();
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;
  /// True when it has come to that.
  bool failed() const;
};

/// Runs `operation` with its first allocation failing, then with its second, and so on until none
/// fails, and answers what it then does. check(code) sees each answer before that.
template <class Operation, class Check>
unsigned int fail_each_allocation(Operation&& operation, Check&& check) {
  for (int good = 0;; ++good) {
    unsigned int code = 0;
    bool failed = false;
    {
      const FailingAllocation scope(good);
      code = operation();
      failed = scope.failed();
    }
    if (!failed) return code;
    check(code);
  }
}

}  // namespace portsvc
