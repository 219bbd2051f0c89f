#include "ports/buffer.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/allocation.h"
#include "tests/support/payload.h"

namespace portsvc {
namespace {

vrPort_Buffer packet(unsigned int handle, std::string_view data) {
  return vrPort_Buffer(handle, buffer(data));
}

TEST(Buffer, OwnsACopyOfItsBytes) {
  std::string source = "hello";
  vrBuffer first = buffer(source);
  vrBuffer second(first);
  vrBuffer third;
  third = first;
  source[0] = 'J';
  first.assign("bye", 3);
  EXPECT_EQ(text(first), "bye");
  EXPECT_EQ(text(second), "hello");
  EXPECT_EQ(text(third), "hello");
  first.assign("x", 0);
  EXPECT_EQ(first.size(), 0u);
  EXPECT_EQ(first.data(), nullptr);
}

TEST(Buffer, GivesItsBytesAwayWhenMoved) {
  vrBuffer first = buffer("hello");
  const unsigned char* const bytes = first.data();
  vrBuffer second(std::move(first));
  vrBuffer third = buffer("old");
  third = std::move(second);
  EXPECT_EQ(third.data(), bytes);
  EXPECT_EQ(text(third), "hello");
  EXPECT_EQ(third.release().get(), bytes);
  for (const vrBuffer* emptied : {&first, &second, &third}) {
    EXPECT_EQ(emptied->size(), 0u);
    EXPECT_EQ(emptied->data(), nullptr);
  }
}

TEST(Buffer, KeepsItsPayloadWhenAnEmptyOneIsAssigned) {
  vrBuffer target = buffer("old");
  const vrBuffer empty;
  target = empty;
  target = vrBuffer();
  target = static_cast<const vrBuffer&>(target);
  EXPECT_EQ(text(target), "old");

  vrPort_Buffer tagged = packet(7, "old");
  const vrPort_Buffer other = packet(8, "");
  tagged = other;
  EXPECT_EQ(tagged.handle(), 8u);
  tagged = packet(9, "");
  EXPECT_EQ(tagged.handle(), 9u);
  EXPECT_EQ(text(tagged), "old");
  tagged = packet(10, "new");
  EXPECT_EQ(tagged.handle(), 10u);
  EXPECT_EQ(text(tagged), "new");
}

TEST(Buffer, ComparesLengthAndBytesAndPortBuffersTheirHandles) {
  EXPECT_TRUE(buffer("abc") == buffer("abc"));
  EXPECT_TRUE(vrBuffer() == buffer(""));
  EXPECT_FALSE(buffer("abc") == buffer("abd"));
  EXPECT_FALSE(buffer("abc") == buffer("ab"));
  EXPECT_FALSE(buffer("ab") == buffer("abc"));
  EXPECT_FALSE(vrBuffer() == buffer("a"));
  EXPECT_TRUE(packet(1, "a") == packet(1, "b"));
  EXPECT_FALSE(packet(1, "a") == packet(2, "a"));
}

TEST(Buffer, IsEmptyWhenItsBytesCannotBeAllocated) {
  const vrPort_Buffer source = packet(5, "hello");
  vrBuffer assigned = buffer("old");
  vrPort_Buffer copied = packet(1, "old");
  errno = 0;
  {
    const NoMemory scope;
    const vrBuffer made(5, "hello");
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(made.size(), 0u);
    EXPECT_EQ(vrPort_Buffer(source).size(), 0u);
    assigned.assign("new", 3);
    copied = source;
  }
  EXPECT_EQ(assigned.size(), 0u);
  EXPECT_EQ(assigned.data(), nullptr);
  EXPECT_EQ(copied.size(), 0u);
  EXPECT_EQ(copied.handle(), 5u);
}

}  // namespace
}  // namespace portsvc
