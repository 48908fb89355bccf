#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "runtime/FifoArena.h"

namespace Kel {
namespace {

TEST(FifoArena, ObjectsKeepTheirBytesAndEmptiedBlocksAreUnmapped) {
  FifoArena arena;
  std::vector<unsigned char*> objects;
  // A burst over several blocks, with one too large for a block among them.
  for (std::size_t i = 0; i < 2000; ++i) {
    std::size_t const bytes = i == 1000 ? 100000 : 100 + i % 200;
    auto* const p = static_cast<unsigned char*>(arena.allocate(bytes));
    ASSERT_EQ(reinterpret_cast<std::uintptr_t>(p) % alignof(std::max_align_t), 0u);
    std::memset(p, int(i % 251), bytes);
    objects.push_back(p);
  }
  EXPECT_GT(arena.blocks(), 3u);
  for (std::size_t i = 0; i < objects.size(); ++i) {
    std::size_t const bytes = i == 1000 ? 100000 : 100 + i % 200;
    for (std::size_t b = 0; b < bytes; b += 37) ASSERT_EQ(objects[i][b], i % 251) << "object " << i;
  }
  // One that stays keeps its block, and only that one with the newest.
  void* const kept = objects[500];
  for (auto* p : objects) {
    if (p != kept) arena.release(p);
  }
  EXPECT_LE(arena.blocks(), 3u);
  arena.release(kept);
  EXPECT_LE(arena.blocks(), 2u);
  arena.release(nullptr);
}

}  // namespace
}  // namespace Kel
