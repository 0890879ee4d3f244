#include "tests/support/scarce_memory.h"

#include <cstdlib>
#include <new>

namespace {

bool limited = false;
bool refused = false;
std::size_t left = 0;

bool granted() {
  if (!limited) return true;
  if (left == 0) {
    refused = true;
    return false;
  }
  --left;
  return true;
}

}  // namespace

test_support::ScarceMemory::ScarceMemory(std::size_t allocations) {
  left = allocations;
  refused = false;
  limited = true;
}

test_support::ScarceMemory::~ScarceMemory() {
  limited = false;
}

bool test_support::ScarceMemory::ran_out() const {
  return refused;
}

void* operator new(std::size_t size) {
  void* const memory = granted() ? std::malloc(size) : nullptr;
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
