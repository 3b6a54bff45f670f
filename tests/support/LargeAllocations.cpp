// The counting operator new and delete behind LargeAllocations(). They stay out of line: inlined
// into a caller, they would show the compiler a block from malloc() released by operator delete,
// or the reverse, and it would warn of a mismatch that is none.
#include "support/LargeAllocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long> gLargeAllocations{0};

void *Allocate(std::size_t size) {
  if (size >= kivtest::kLargeAllocation) {
    ++gLargeAllocations;
  }
  return std::malloc(size == 0 ? 1 : size);
}

} // namespace

long kivtest::LargeAllocations() { return gLargeAllocations.load(); }

bool kivtest::LargeAllocationsAreCounted() {
  const long before = LargeAllocations();
  ::operator delete(::operator new(kLargeAllocation));
  return LargeAllocations() == before + 1;
}

__attribute__((noinline)) void *operator new(std::size_t size) {
  void *block = Allocate(size);
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  return block;
}
__attribute__((noinline)) void *operator new[](std::size_t size) { return operator new(size); }
__attribute__((noinline)) void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
  return Allocate(size);
}
__attribute__((noinline)) void *operator new[](std::size_t size, const std::nothrow_t &) noexcept {
  return Allocate(size);
}
__attribute__((noinline)) void operator delete(void *block) noexcept { std::free(block); }
__attribute__((noinline)) void operator delete[](void *block) noexcept { std::free(block); }
__attribute__((noinline)) void operator delete(void *block, std::size_t) noexcept {
  std::free(block);
}
__attribute__((noinline)) void operator delete[](void *block, std::size_t) noexcept {
  std::free(block);
}
