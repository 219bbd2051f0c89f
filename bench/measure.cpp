#include "bench/measure.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "tests/support/threads.h"

namespace portsvc::bench {

double seconds_per_call(const Work& work, unsigned int threads, std::chrono::milliseconds slice) {
  std::mutex lock;  // guards the two sums
  double seconds = 0;
  double calls = 0;
  const auto end = Clock::now() + slice;
  in_parallel(static_cast<int>(threads), [&](int number) {
    const auto thread = static_cast<unsigned int>(number);
    double own_seconds = 0;
    double own_calls = 0;
    do {
      if (work.prepare) work.prepare(thread);
      const auto start = Clock::now();
      for (unsigned int i = 0; i < work.burst; ++i) work.call(thread);
      own_seconds += seconds_since(start);
      own_calls += work.burst;
      if (work.finish) work.finish(thread);
    } while (Clock::now() < end);
    const std::lock_guard<std::mutex> guard(lock);
    seconds += own_seconds;
    calls += own_calls;
  });
  return seconds / calls;
}

std::vector<double> alternate(const std::vector<std::function<double()>>& measurements,
                              unsigned int rounds, std::size_t contenders) {
  std::vector<std::vector<double>> results(contenders == 0 ? measurements.size() : contenders);
  for (const auto& measure : measurements) measure();
  for (unsigned int round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < measurements.size(); ++i) {
      results[i % results.size()].push_back(measurements[i]());
    }
  }
  std::vector<double> medians;
  for (auto& values : results) medians.push_back(median(std::move(values)));
  return medians;
}

std::vector<double> alternate(const std::vector<Work>& works, unsigned int threads,
                              const Effort& effort, std::size_t contenders) {
  std::vector<std::function<double()>> measurements;
  for (const Work& work : works) {
    measurements.emplace_back([&] { return seconds_per_call(work, threads, effort.slice); });
  }
  return alternate(measurements, effort.rounds, contenders);
}

double percentile(std::vector<double>& values, double rank) {
  std::sort(values.begin(), values.end());
  const auto index = static_cast<std::size_t>(rank * static_cast<double>(values.size()));
  return values[std::min(index, values.size() - 1)];
}

}  // namespace portsvc::bench
