// Replaces the global operator new of a test program with one that counts
// every allocation of the process, for tests that promise a path allocates
// nothing. Include it in exactly one source file of a program: replacement
// allocation functions are defined once per program.
#pragma once

#include <atomic>
#include <cstdlib>
#include <new>

namespace testing_alloc {
inline std::atomic<long> gAllocations{0};
// Allocations made so far by the whole process.
inline long allocations() { return gAllocations.load(std::memory_order_relaxed); }
}  // namespace testing_alloc

void* operator new(std::size_t size) {
  testing_alloc::gAllocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
