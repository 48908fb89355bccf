#pragma once

#include <cstddef>

namespace Kel {

// Memory for objects made in bursts and let go of roughly in the order they
// came: thousands of children asked for in one turn that wait for a slot.
// Made from the general heap, each would leave a hole between the long-lived
// objects made in the same turn once it ended, and a heap full of holes
// keeps its pages. Here they share blocks of their own, mapped apart from
// the heap, and a block is unmapped when the last object in it goes.
//
// Allocation bumps a pointer in the newest block; a block is not reused
// before all of its objects are gone, so one long-lived object keeps its
// whole block. Requests too large for a block go to the general heap.
class FifoArena {
 public:
  // The one of the process; the runtime is single-threaded.
  static FifoArena& instance();

  FifoArena() = default;
  ~FifoArena();
  FifoArena(FifoArena const&) = delete;
  FifoArena& operator=(FifoArena const&) = delete;

  // Aligned for any object; throws std::bad_alloc.
  void* allocate(std::size_t bytes);
  // p from allocate, or null.
  void release(void* p) noexcept;

  // Blocks mapped now, the spare one included.
  std::size_t blocks() const { return blocks_; }

 private:
  struct Block;

  Block* newBlock();
  void unmap(Block* block) noexcept;

  Block* current_ = nullptr;
  // The last block emptied, kept so that a steady trickle of objects does
  // not map and unmap a block each time one fills.
  Block* spare_ = nullptr;
  std::size_t blocks_ = 0;
};

}  // namespace Kel
