// A work queue: producers add jobs, one process owns the queue and works on them with several
// threads. A producer waits until a worker takes its job, so nobody runs ahead of the workers.
//
//     work_queue SERVER work COUNT     takes COUNT jobs and ends
//     work_queue SERVER add JOB...
#include <portsvc/client.h>

#include <atomic>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
namespace ps = portsvc::client;

namespace {

void work(ps::Connection& plant, int count) {
  ps::OwnerOptions options;
  options.create = 1000;     // the queue need not exist before
  options.take_over = true;  // nor need an owner that crashed have left it
  ps::Owner queue(plant, "jobs", options);

  std::atomic<int> left{count};
  std::mutex out;
  std::vector<std::thread> workers;
  for (int i = 0; i < 4; ++i) {
    workers.emplace_back([&] {
      ps::Packet job;
      while (left > 0) {
        const ps::Result taken = queue.receive(job);
        if (taken == ps::failure::cancelled) return;
        if (!taken) {
          std::cerr << taken.text() << "\n";
          continue;
        }
        {
          const std::lock_guard<std::mutex> guard(out);
          std::cout << "done: " << job.data.text() << std::endl;
        }
        if (--left <= 0) queue.cancel();  // ends the other threads' waits
      }
    });
  }
  for (std::thread& worker : workers) worker.join();
}

void add(ps::Connection& plant, const std::vector<std::string>& jobs) {
  ps::Client queue(plant, "jobs");
  for (const std::string& job : jobs) queue.send(job, 30s).check("add " + job);
}

}  // namespace

int main(int argc, char** argv) try {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() < 3) {
    std::cerr << "usage: work_queue SERVER work COUNT | add JOB...\n";
    return 2;
  }
  ps::Connection plant(words[0]);
  if (words[1] == "work") {
    work(plant, std::stoi(words[2]));
  } else {
    add(plant, {words.begin() + 2, words.end()});
  }
  return 0;
} catch (const std::exception& error) {
  std::cerr << "work_queue: " << error.what() << "\n";
  return 1;
}
