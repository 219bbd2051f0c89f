// Requests and replies: one owner answers, many clients ask at the same time.
//
//     request_reply SERVER serve COUNT              answers COUNT requests and ends
//     request_reply SERVER ask CLIENTS QUESTIONS    so many of each, every client on its thread
#include <portsvc/client.h>

#include <atomic>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
namespace ps = portsvc::client;

namespace {

void serve(ps::Connection& plant, int count) {
  ps::OwnerOptions options;
  options.create = 100;
  options.take_over = true;
  ps::Owner owner(plant, "questions", options);
  ps::Packet request;
  for (int i = 0; i < count; ++i) {
    owner.receive(request).check("receive");
    // A client that has gone meanwhile is no reason to stop.
    const ps::Result replied = owner.reply(request.from, "re: " + std::string(request.data.text()));
    if (!replied) std::cerr << "no reply: " << replied.text() << "\n";
  }
}

int ask(ps::Connection& plant, int clients, int questions) {
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < clients; ++i) {
    threads.emplace_back([&, i] {
      try {
        ps::Client client(plant, "questions");  // each thread its own
        ps::Payload reply;
        for (int j = 0; j < questions; ++j) {
          const std::string question = std::to_string(i) + "." + std::to_string(j);
          const ps::Result asked = client.ask(question, reply, 30s);
          if (!asked) std::cerr << question << ": " << asked.text() << "\n";
          if (asked && reply.text() == "re: " + question) ++right;
        }
      } catch (const ps::Error& error) {
        std::cerr << error.what() << "\n";
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::cout << right << " of " << clients * questions << " answered" << std::endl;
  return right == clients * questions ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) try {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() == 3 && words[1] == "serve") {
    ps::Connection plant(words[0]);
    serve(plant, std::stoi(words[2]));
    return 0;
  }
  if (words.size() == 4 && words[1] == "ask") {
    ps::Connection plant(words[0]);
    return ask(plant, std::stoi(words[2]), std::stoi(words[3]));
  }
  std::cerr << "usage: request_reply SERVER serve COUNT | ask CLIENTS QUESTIONS\n";
  return 2;
} catch (const std::exception& error) {
  std::cerr << "request_reply: " << error.what() << "\n";
  return 1;
}
