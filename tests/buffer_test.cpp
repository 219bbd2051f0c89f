// Payloads, and the queue that keeps them.
#include "ports/buffer.h"

#include <gtest/gtest.h>

#include <tuple>

#include "idl/port_codes.h"
#include "ports/buffer_queue.h"
#include "tests/support/payload.h"

namespace portsvc {
namespace {

vrPort_Buffer packet(unsigned int handle, std::string_view data) {
  return vrPort_Buffer(handle, buffer(data));
}

TEST(Buffer, OwnsItsBytesUntilItGivesThemAway) {
  std::string source = "hello";
  vrBuffer first = buffer(source), second(first), third = buffer("old");
  third = first;
  source[0] = 'J';
  first.assign("bye", 3);
  EXPECT_EQ(text(first) + text(second) + text(third), "byehellohello");

  const unsigned char* const bytes = second.data();
  vrBuffer moved(std::move(second));
  third = std::move(moved);
  EXPECT_EQ(third.data(), bytes);
  EXPECT_EQ(text(third), "hello");
  EXPECT_EQ(third.release().get(), bytes);
  first.assign("x", 0);
  for (const vrBuffer* emptied : {&first, &second, &moved, &third}) {
    EXPECT_EQ(emptied->size(), 0u);
    EXPECT_EQ(emptied->data(), nullptr);
  }
}

TEST(Buffer, ComparesLengthAndBytesAndPortBuffersTheirHandles) {
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"abc", "abc", true}, {"", "", true},       {"abc", "abd", false},
      {"abc", "ab", false}, {"ab", "abc", false}, {"", "a", false}};
  for (const auto& [left, right, equal] : cases) {
    EXPECT_EQ(buffer(left) == buffer(right), equal) << left << " " << right;
  }
  EXPECT_TRUE(packet(1, "a") == packet(1, "b"));
  EXPECT_FALSE(packet(1, "a") == packet(2, "a"));
}

// All that is queued, oldest first.
std::string drain(vrPort_Buffer_Queue& queue) {
  std::string all;
  vrPort_Buffer packet;
  for (; queue.pop(any_handle, packet) == result::ok; packet = vrPort_Buffer()) {
    all += std::to_string(packet.handle()) + text(packet);
    packet.release();
  }
  return all;
}

TEST(BufferQueue, TakesByHandleAndTellsEmptyFromNoneForThatHandle) {
  vrPort_Buffer_Queue queue;
  queue.set_limit(10);
  vrPort_Buffer out = packet(9, "untouched");
  EXPECT_EQ(queue.pop(any_handle, out), result::nothing_arrived);
  EXPECT_EQ(queue.pop(800, out), result::unknown_name);
  EXPECT_EQ(queue.find(800), result::queue_empty);
  // The empty payload in the middle must neither gain nor lose bytes when its neighbours leave.
  for (const auto& one : {packet(800, "a"), packet(801, ""), packet(800, "b"), packet(802, "c")}) {
    queue.push_back(one);
  }
  EXPECT_EQ(queue.find(803), result::unknown_name);
  EXPECT_EQ(queue.pop(803, out), result::unknown_name);
  EXPECT_EQ(std::to_string(out.handle()) + text(out), "9untouched");
  EXPECT_EQ(queue.find(801), result::ok);
  for (const char* data : {"a", "b"}) {
    EXPECT_EQ(queue.pop(800, out), result::ok);
    EXPECT_EQ(std::to_string(out.handle()) + text(out), std::string("800") + data);
  }
  EXPECT_EQ(drain(queue), "801802c");
  queue.push(801, buffer("a"));
  queue.clear();
  EXPECT_EQ(queue.find(801), result::queue_empty);
}

}  // namespace
}  // namespace portsvc
