// Makes memory scarce: a test program that adds allocation_limit.cpp to its sources can let `new`
// fail from a certain size on.
#ifndef TESTS_SUPPORT_ALLOCATION_LIMIT_H
#define TESTS_SUPPORT_ALLOCATION_LIMIT_H

#include <cstddef>

namespace test_support {

/// While one lives, every `new` of `bytes` or more throws std::bad_alloc, on any thread.
class AllocationLimit {
 public:
  explicit AllocationLimit(std::size_t bytes);
  ~AllocationLimit();
  AllocationLimit(const AllocationLimit&) = delete;
  AllocationLimit& operator=(const AllocationLimit&) = delete;
};

}  // namespace test_support

#endif
