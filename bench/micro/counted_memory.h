// What a piece of work allocates, counted in a replacement of operator new.
#ifndef BENCH_MICRO_COUNTED_MEMORY_H
#define BENCH_MICRO_COUNTED_MEMORY_H

#include <benchmark/benchmark.h>

#include <cstdint>

/// Counts from its construction to the call, on all threads. Memory that C code takes from malloc()
/// is not seen. One at a time.
class CountedMemory {
 public:
  CountedMemory();
  ~CountedMemory();
  CountedMemory(const CountedMemory&) = delete;
  CountedMemory& operator=(const CountedMemory&) = delete;

  std::int64_t allocations() const;
  std::int64_t most_bytes() const;  ///< in use at once, beyond those at construction
};

/// Does the work once more, after the timed loop, and adds what it allocates to the result:
/// "allocations" and "most_bytes".
template <typename Work>
void count_memory(benchmark::State& state, Work work) {
  std::int64_t allocations = 0;
  std::int64_t most_bytes = 0;
  {
    const CountedMemory counted;
    work();
    allocations = counted.allocations();
    most_bytes = counted.most_bytes();
  }
  state.counters["allocations"] = static_cast<double>(allocations);
  state.counters["most_bytes"] = static_cast<double>(most_bytes);
}

#endif
