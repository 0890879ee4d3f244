#include "tests/support/scarce_memory.h"

#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

thread_local bool limited = false;
thread_local bool refused = false;
thread_local std::size_t left = 0;
thread_local std::size_t refused_size = SIZE_MAX;
thread_local std::size_t refused_once = SIZE_MAX;

bool granted(std::size_t size) {
  if (size >= refused_size) return false;
  if (size == refused_once) {
    refused_once = SIZE_MAX;
    return false;
  }
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

test_support::NoLargeMemory::NoLargeMemory(std::size_t bytes) {
  refused_size = bytes;
}

test_support::NoLargeMemory::~NoLargeMemory() {
  refused_size = SIZE_MAX;
}

test_support::NoMemoryFor::NoMemoryFor(std::size_t bytes) {
  refused_once = bytes;
}

test_support::NoMemoryFor::~NoMemoryFor() {
  refused_once = SIZE_MAX;
}

void* operator new(std::size_t size) {
  void* const memory = granted(size) ? std::malloc(size) : nullptr;
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
