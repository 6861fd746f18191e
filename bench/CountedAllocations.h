// Counts every heap allocation of the program: operator new is replaced, and the module's
// calls reach the replacement too. Include it in exactly one source of a benchmark program
// (the replacements are definitions, and a program has one of each).
#pragma once

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<long> gAllocations{0};
}

void* operator new(std::size_t size) {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
// The replacement pair is malloc and free; the compiler cannot tell that they belong
// together through the replaced operator new.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop
