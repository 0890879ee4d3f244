// A log file's bytes become a request: against copying the same bytes once.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "bench/micro/scratch.h"
#include "log_consumer/qv_log_consumer_upload.h"

namespace {

std::vector<char> file_of(std::size_t size) {
  std::vector<char> bytes(size);
  std::uint32_t state = 1;
  for (char& byte : bytes) {
    state = state * 1'664'525U + 1'013'904'223U;
    byte = static_cast<char>(state >> 24U);
  }
  return bytes;
}

UploadForm form() {
  return {"AB12345678", "Debug", "1770109500", "debug_20260203_0905.txt.gz"};
}

/// Where large buffers come from: the heap, which keeps them, or the system, as the service has it
/// (see log_consumer_main()). From the system each page of a buffer is a fault when it is first
/// used.
enum class Memory { kKept, kNew };

void take_large_buffers_from(Memory memory) {
  constexpr int kFixed = 128 * 1024;
  constexpr int kMost = 32 * 1024 * 1024;  // the largest that the C library accepts
  mallopt(M_MMAP_THRESHOLD, memory == Memory::kNew ? kFixed : kMost);
  mallopt(M_TRIM_THRESHOLD, 8 * kMost);
  malloc_trim(0);  // what the heap still has would be taken first
}

void set_speed(benchmark::State& state) {
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

// Into memory that is there: the least that any framing could cost.
void memcpy_only(benchmark::State& state) {
  const std::vector<char> file = file_of(static_cast<std::size_t>(state.range(0)));
  std::vector<char> copy(file.size());
  for (auto _ : state) {
    std::memcpy(copy.data(), file.data(), file.size());
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
  }
  set_speed(state);
}

// Into a buffer made for it.
void memcpy_to_buffer(benchmark::State& state, Memory memory) {
  take_large_buffers_from(memory);
  const std::vector<char> file = file_of(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    const std::vector<char> copy(file.begin(), file.end());
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
  }
  set_speed(state);
}

// All but the file's bytes, which are read straight to their place.
void framing(benchmark::State& state, Memory memory) {
  take_large_buffers_from(memory);
  const auto size = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    const RequestHead head =
        frameUpload(form(), "logs.example.com", static_cast<std::uint32_t>(size));
    std::vector<char> request = layOutRequest(head.size(), size);
    putHead(head, request);
    benchmark::DoNotOptimize(request.data());
    benchmark::ClobberMemory();
  }
  set_speed(state);
}

// From the file on disk, its pages cached, to the request.
void file_to_request(benchmark::State& state) {
  take_large_buffers_from(Memory::kKept);
  const Scratch scratch;
  const std::string path = scratch.path() + "/file.gz";
  scratch.write("file.gz", file_of(static_cast<std::size_t>(state.range(0))));
  for (auto _ : state) {
    std::ifstream file;
    std::size_t size = 0;
    if (!openLogFile(file, path, size)) std::abort();
    const RequestHead head =
        frameUpload(form(), "logs.example.com", static_cast<std::uint32_t>(size));
    std::vector<char> request = layOutRequest(head.size(), size);
    putHead(head, request);
    if (readLogFile(file, request.data() + head.size(), size) != size) std::abort();
    benchmark::DoNotOptimize(request.data());
  }
  set_speed(state);
}

// The same file into memory that is there.
void file_to_memory(benchmark::State& state) {
  const Scratch scratch;
  const std::string path = scratch.path() + "/file.gz";
  const std::vector<char> bytes = file_of(static_cast<std::size_t>(state.range(0)));
  scratch.write("file.gz", bytes);
  std::vector<char> memory(bytes.size());
  for (auto _ : state) {
    std::ifstream file(path, std::ios::binary);
    file.read(memory.data(), static_cast<std::streamsize>(memory.size()));
    if (file.gcount() != static_cast<std::streamsize>(memory.size())) std::abort();
    benchmark::DoNotOptimize(memory.data());
  }
  set_speed(state);
}

constexpr std::int64_t kKibibyte = 1024;
constexpr std::int64_t kMebibyte = 1024 * kKibibyte;

void sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->Arg(kKibibyte)->Arg(kMebibyte)->Arg(16 * kMebibyte);
}

BENCHMARK(memcpy_only)->Apply(sizes);
BENCHMARK_CAPTURE(framing, kept, Memory::kKept)->Apply(sizes);
BENCHMARK_CAPTURE(memcpy_to_buffer, new, Memory::kNew)->Apply(sizes);
BENCHMARK_CAPTURE(framing, new, Memory::kNew)->Apply(sizes);
BENCHMARK(file_to_memory)->Apply(sizes);
BENCHMARK(file_to_request)->Apply(sizes);

}  // namespace
