// Counts the heap bytes one thread allocates through operator new while a
// scope is open, so a benchmark can report the peak memory of the client side
// without the in-process server thread's allocations mixed in.
#ifndef BENCH_ALLOC_COUNTER_H
#define BENCH_ALLOC_COUNTER_H

#include <cstddef>

namespace benchalloc {

// While it lives, every allocation made by the constructing thread is
// counted; its release is subtracted whichever thread performs it. Scopes do
// not nest.
class Scope {
 public:
  Scope();
  ~Scope();
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;

  // Highest number of counted bytes alive at once since the scope opened.
  std::size_t peak() const;
  // Counted bytes still alive.
  std::size_t current() const;
};

}  // namespace benchalloc

#endif  // BENCH_ALLOC_COUNTER_H
