// Event fan-out: whoever watches sees every event of a code from the moment it began, in order.
//
//     fan_out SERVER watch COUNT    prints COUNT events and ends
//     fan_out SERVER tell TEXT...
#include <portsvc/client.h>

#include <iostream>
#include <string>
#include <vector>

namespace ps = portsvc::client;

namespace {

constexpr unsigned int alarms = 7;  // the event code that both sides agree on

void watch(ps::Connection& plant, std::size_t count) {
  ps::Subscription subscription(plant, {alarms});
  std::cout << "watching" << std::endl;
  std::vector<ps::Payload> events;
  std::uint64_t gaps = 0;
  while (count > 0) {
    // Many at a time cost one call. Together they must fit the largest message.
    subscription.take(events, 64).check("watch");
    if (gaps != subscription.gaps()) {
      gaps = subscription.gaps();
      std::cout << "(the server was restarted: events may be missing here)" << std::endl;
    }
    for (const ps::Payload& event : events) {
      if (count > 0) std::cout << event.text() << std::endl;
      if (count > 0) --count;
    }
  }
}

void tell(ps::Connection& plant, const std::vector<std::string>& texts) {
  // As one call: no other event comes between them.
  const ps::Result told = plant.declare(alarms, std::vector<ps::Bytes>(texts.begin(), texts.end()));
  // Nobody there to hear is an answer, too.
  if (told == portsvc::result::no_subscriptions || told == portsvc::result::not_subscribed) {
    std::cout << "nobody watches" << std::endl;
    return;
  }
  told.check("tell");
}

}  // namespace

int main(int argc, char** argv) try {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() < 3) {
    std::cerr << "usage: fan_out SERVER watch COUNT | tell TEXT...\n";
    return 2;
  }
  ps::Connection plant(words[0]);
  if (words[1] == "watch") {
    watch(plant, std::stoul(words[2]));
  } else {
    tell(plant, {words.begin() + 2, words.end()});
  }
  return 0;
} catch (const std::exception& error) {
  std::cerr << "fan_out: " << error.what() << "\n";
  return 1;
}
