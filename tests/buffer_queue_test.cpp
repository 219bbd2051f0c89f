#include "ports/buffer_queue.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "idl/port_codes.h"
#include "tests/support/payload.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

using Taken = std::pair<unsigned int, std::string>;  // handle, payload

// All that is queued, oldest first.
std::vector<Taken> drain(vrPort_Buffer_Queue& queue) {
  std::vector<Taken> all;
  for (;;) {
    vrPort_Buffer packet;
    if (queue.pop(any_handle, packet) != result::ok) return all;
    all.emplace_back(packet.handle(), text(packet));
  }
}

TEST(BufferQueue, DropsTheOldestBeyondItsLimit) {
  vrPort_Buffer_Queue queue;
  EXPECT_EQ(queue.limit(), 1u);
  for (const char* data : {"a", "b", "c"}) queue.push(7, buffer(data));
  EXPECT_EQ(drain(queue), (std::vector<Taken>{{7, "c"}}));

  queue.set_limit(2);
  for (const char* data : {"a", "b", "c"}) queue.push_back(vrPort_Buffer(8, buffer(data)));
  EXPECT_EQ(drain(queue), (std::vector<Taken>{{8, "b"}, {8, "c"}}));

  queue.set_limit(0);
  queue.push(7, buffer("a"));
  EXPECT_EQ(queue.is_empty(), 1u);
}

TEST(BufferQueue, TakesByHandleAndKeepsTheOrderOfTheOthers) {
  vrPort_Buffer_Queue queue;
  queue.set_limit(10);
  // The empty payload in the middle must neither gain nor lose bytes when its neighbours leave.
  queue.push(800, buffer("a"));
  queue.push(801, buffer(""));
  queue.push(800, buffer("b"));
  queue.push(802, buffer("c"));

  vrPort_Buffer out;
  EXPECT_EQ(queue.pop(800, out), result::ok);
  EXPECT_EQ(text(out), "a");
  EXPECT_EQ(queue.pop(800, out), result::ok);
  EXPECT_EQ(text(out), "b");
  EXPECT_EQ(queue.pop(800, out), result::unknown_name);
  EXPECT_EQ(out.handle(), 800u);
  EXPECT_EQ(drain(queue), (std::vector<Taken>{{801, ""}, {802, "c"}}));
}

TEST(BufferQueue, TellsEmptyFromNoneForThatHandle) {
  vrPort_Buffer_Queue queue;
  vrPort_Buffer out(9, buffer("untouched"));
  EXPECT_EQ(queue.pop(any_handle, out), result::nothing_arrived);
  EXPECT_EQ(queue.pop(800, out), result::unknown_name);
  EXPECT_EQ(queue.find(800), result::queue_empty);
  EXPECT_EQ(queue.is_empty(), 1u);
  queue.push(801, buffer("a"));
  EXPECT_EQ(queue.pop(800, out), result::unknown_name);
  EXPECT_EQ(queue.find(800), result::unknown_name);
  EXPECT_EQ(queue.find(801), result::ok);
  EXPECT_EQ(queue.is_empty(), 0u);
  EXPECT_EQ(out.handle(), 9u);
  EXPECT_EQ(text(out), "untouched");
  queue.clear();
  EXPECT_EQ(queue.find(801), result::queue_empty);
}

TEST(BufferQueue, LosesNothingBelowTheLimitUnderConcurrentUse) {
  constexpr unsigned int each = 2000;
  vrPort_Buffer_Queue queue;
  queue.set_limit(4 * each);
  // Two threads push, two take what was pushed for them, in order.
  in_parallel(4, [&](int i) {
    const auto handle = static_cast<unsigned int>(i / 2);
    if (i % 2 == 0) {
      for (unsigned int n = 0; n < each; ++n) queue.push(handle, buffer(std::to_string(n)));
      return;
    }
    for (unsigned int n = 0; n < each;) {
      vrPort_Buffer out;
      if (queue.pop(handle, out) != result::ok) continue;
      ASSERT_EQ(text(out), std::to_string(n++));
    }
  });
  EXPECT_EQ(queue.is_empty(), 1u);
}

}  // namespace
}  // namespace portsvc
