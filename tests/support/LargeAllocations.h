// Counts the program's large allocations, so a test can tell whether the library reserved memory
// for a frame length a device announced. A test program that calls LargeAllocations() gets the
// counting operator new and delete with it; others keep the standard ones.
#ifndef KIV_TESTS_SUPPORT_LARGEALLOCATIONS_H
#define KIV_TESTS_SUPPORT_LARGEALLOCATIONS_H

#include <cstddef>

namespace kivtest {

// Allocations of at least this many bytes are counted.
constexpr std::size_t kLargeAllocation = 1 << 20;

// How many large allocations the program has made so far.
long LargeAllocations();

// Whether the counting allocator is the program's (one large allocation is made to see it
// counted): a test asserts it, so that "nothing reserved" can never pass by not counting.
bool LargeAllocationsAreCounted();

} // namespace kivtest

#endif // KIV_TESTS_SUPPORT_LARGEALLOCATIONS_H
