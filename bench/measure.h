// How things are timed: by many calls from one or more threads at once, in slices that alternate
// between the contenders, of which the median counts.
#pragma once

#include <chrono>
#include <functional>
#include <vector>

namespace portsvc::bench {

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// How long to measure: the number of slices per contender and the length of one.
struct Effort {
  unsigned int rounds;
  std::chrono::milliseconds slice;
};

/// What each of several threads, numbered from 0, does over and over: `prepare` once, then `call`
/// as often as `burst` says, then `finish` once. Only the calls are timed; the other two may be
/// empty.
struct Work {
  std::function<void(unsigned int thread)> prepare;
  std::function<void(unsigned int thread)> call;
  unsigned int burst = 1;
  std::function<void(unsigned int thread)> finish = {};
};

/// Does the work with `threads` threads for about `slice`: the mean time of a call, as its caller
/// sees it, in seconds. An exception of a thread is rethrown here.
double seconds_per_call(const Work& work, unsigned int threads, std::chrono::milliseconds slice);

/// Runs every measurement once untimed, then all of them in turn, `rounds` times over; the median
/// of each, or of each `contenders`-th one together.
std::vector<double> alternate(const std::vector<std::function<double()>>& measurements,
                              unsigned int rounds, std::size_t contenders = 0);

/// alternate() with seconds_per_call() of each work. The works may be those of `contenders` taken
/// in turn several times over, each time with other processes: the median is then one of all of
/// them.
std::vector<double> alternate(const std::vector<Work>& works, unsigned int threads,
                              const Effort& effort, std::size_t contenders = 0);

/// The value below which the share `rank` (0 to 1) of the values lies. The values are not empty;
/// they are sorted afterwards.
double percentile(std::vector<double>& values, double rank);
inline double median(std::vector<double> values) { return percentile(values, 0.5); }

}  // namespace portsvc::bench
