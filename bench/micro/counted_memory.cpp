#include "bench/micro/counted_memory.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> counting{false};
std::atomic<std::int64_t> allocated{0};
std::atomic<std::int64_t> in_use{0};
std::atomic<std::int64_t> most{0};

void note_allocated(void* memory) {
  ++allocated;
  const std::int64_t now = in_use += static_cast<std::int64_t>(malloc_usable_size(memory));
  std::int64_t before = most;
  while (now > before && !most.compare_exchange_weak(before, now)) {
  }
}

void note_freed(void* memory) {
  in_use -= static_cast<std::int64_t>(malloc_usable_size(memory));
}

}  // namespace

void* operator new(std::size_t size) {
  void* const memory = std::malloc(std::max<std::size_t>(size, 1));
  if (memory == nullptr) throw std::bad_alloc();
  if (counting.load(std::memory_order_relaxed)) note_allocated(memory);
  return memory;
}

void operator delete(void* memory) noexcept {
  if (counting.load(std::memory_order_relaxed)) note_freed(memory);
  std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
  operator delete(memory);
}

CountedMemory::CountedMemory() {
  allocated = 0;
  in_use = 0;
  most = 0;
  counting = true;
}

CountedMemory::~CountedMemory() {
  counting = false;
}

std::int64_t CountedMemory::allocations() const {
  return allocated;
}

std::int64_t CountedMemory::most_bytes() const {
  return most;
}
