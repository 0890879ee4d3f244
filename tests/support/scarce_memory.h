// Lets memory run out: at every single allocation of a piece of code in turn, or for large ones.
//
// A test program that compiles scarce_memory.cpp replaces operator new. Allocations through
// malloc() itself are not touched. Each limit holds for the thread that it was made on.
#ifndef TESTS_SUPPORT_SCARCE_MEMORY_H
#define TESTS_SUPPORT_SCARCE_MEMORY_H

#include <cstddef>

namespace test_support {

/// While one lives, operator new succeeds so many times and throws std::bad_alloc from then on.
class ScarceMemory {
 public:
  explicit ScarceMemory(std::size_t allocations);
  ~ScarceMemory();
  ScarceMemory(const ScarceMemory&) = delete;
  ScarceMemory& operator=(const ScarceMemory&) = delete;

  /// Whether an allocation was refused.
  bool ran_out() const;
};

/// While one lives, operator new throws std::bad_alloc for `bytes` and more at once.
class NoLargeMemory {
 public:
  explicit NoLargeMemory(std::size_t bytes);
  ~NoLargeMemory();
  NoLargeMemory(const NoLargeMemory&) = delete;
  NoLargeMemory& operator=(const NoLargeMemory&) = delete;
};

/// While one lives, operator new throws std::bad_alloc for the first request of exactly `bytes`.
class NoMemoryFor {
 public:
  explicit NoMemoryFor(std::size_t bytes);
  ~NoMemoryFor();
  NoMemoryFor(const NoMemoryFor&) = delete;
  NoMemoryFor& operator=(const NoMemoryFor&) = delete;
};

/// Runs `work` with 0, 1, 2 ... allocations until it needs no more than it was granted.
/// @param work  bool(): true when it did what it should. It must clean up after itself.
/// @return the allocations that `work` needs, or -1 when it failed with memory left.
template <typename Work>
int allocations_needed(Work work);

}  // namespace test_support

template <typename Work>
int test_support::allocations_needed(Work work) {
  for (int granted = 0;; ++granted) {
    const ScarceMemory scarce(static_cast<std::size_t>(granted));
    if (work()) return granted;
    if (!scarce.ran_out()) return -1;
  }
}

#endif
