#include "tests/support/allocation_limit.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> limit{SIZE_MAX};

}  // namespace

test_support::AllocationLimit::AllocationLimit(std::size_t bytes) {
  limit = bytes;
}

test_support::AllocationLimit::~AllocationLimit() {
  limit = SIZE_MAX;
}

void* operator new(std::size_t size) {
  void* const memory = size < limit ? std::malloc(size == 0 ? 1 : size) : nullptr;
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}
