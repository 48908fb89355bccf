#include "runtime/FifoArena.h"

#include <sys/mman.h>

#include <cstdint>
#include <new>

namespace Kel {

namespace {

constexpr std::size_t blockBytes = 64 * 1024;
constexpr std::size_t alignment = alignof(std::max_align_t);

constexpr std::size_t rounded(std::size_t n) { return (n + alignment - 1) / alignment * alignment; }

}  // namespace

struct FifoArena::Block {
  std::size_t used;
  std::size_t live;
};

namespace {

// Before every object: its block, null for one from the general heap.
struct Header {
  void* block;
};

constexpr std::size_t headerBytes = rounded(sizeof(Header));
constexpr std::size_t firstOffset = rounded(sizeof(std::size_t) * 2);
// Larger ones would leave most of a block unused.
constexpr std::size_t largestInBlock = (blockBytes - firstOffset) / 4;

}  // namespace

FifoArena& FifoArena::instance() {
  // Never destroyed: objects from it may outlive static destruction.
  static auto* arena = new FifoArena();
  return *arena;
}

FifoArena::~FifoArena() {
  if (current_) unmap(current_);
  if (spare_) unmap(spare_);
}

FifoArena::Block* FifoArena::newBlock() {
  if (spare_) {
    Block* const block = spare_;
    spare_ = nullptr;
    return block;
  }
  void* const memory = ::mmap(nullptr, blockBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  ++blocks_;
  return new (memory) Block{firstOffset, 0};
}

void FifoArena::unmap(Block* block) noexcept {
  ::munmap(block, blockBytes);
  --blocks_;
}

void* FifoArena::allocate(std::size_t bytes) {
  std::size_t const need = headerBytes + rounded(bytes);
  if (need > largestInBlock) {
    auto* const header = static_cast<Header*>(::operator new(need));
    header->block = nullptr;
    return reinterpret_cast<char*>(header) + headerBytes;
  }
  if (!current_ || current_->used + need > blockBytes) {
    // The one filled keeps objects (an emptied newest block starts over):
    // the last of them to go frees it.
    current_ = newBlock();
  }
  char* const at = reinterpret_cast<char*>(current_) + current_->used;
  current_->used += need;
  ++current_->live;
  reinterpret_cast<Header*>(at)->block = current_;
  return at + headerBytes;
}

void FifoArena::release(void* p) noexcept {
  if (!p) return;
  auto* const header = reinterpret_cast<Header*>(static_cast<char*>(p) - headerBytes);
  auto* const block = static_cast<Block*>(header->block);
  if (!block) {
    ::operator delete(header);
    return;
  }
  if (--block->live > 0) return;
  if (block == current_) {
    // Empty and newest: start it over.
    block->used = firstOffset;
    return;
  }
  if (spare_) {
    unmap(block);
  } else {
    block->used = firstOffset;
    spare_ = block;
  }
}

}  // namespace Kel
