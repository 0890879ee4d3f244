// A kind's directory listed, and its files looked at.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <sys/stat.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bench/micro/counted_memory.h"
#include "bench/micro/scratch.h"
#include "log_consumer/qv_log_consumer_socket_thread.h"

namespace {

constexpr char kOneByte[] = "x";

std::string name_of(std::int64_t number) {
  return "debug_20260203_" + std::to_string(100'000 + number) + ".txt.gz";
}

void fill(const Scratch& scratch, std::int64_t count, mode_t mode) {
  for (std::int64_t i = 0; i < count; ++i) {
    scratch.write(name_of(i), std::string(kOneByte));
    chmod((scratch.path() + "/" + name_of(i)).c_str(), mode);
  }
}

// All sent before: each file costs a stat(), none a process.
void directory_sent(benchmark::State& state) {
  const Scratch scratch;
  fill(scratch, state.range(0), 0400);
  LogConsumer engine;
  const auto list_and_filter = [&] {
    const std::vector<std::string> files = engine.getFileList(scratch.path());
    if (engine.getNotReadOnlySize(files, scratch.path(), false) != 0) state.SkipWithError("waits");
  };
  for (auto _ : state)
    list_and_filter();
  count_memory(state, list_and_filter);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// The same system calls in the same order, names in one piece: the kernel's share, caches included.
void bare_walk(benchmark::State& state) {
  const Scratch scratch;
  fill(scratch, state.range(0), 0400);
  std::vector<char> names(static_cast<std::size_t>(state.range(0)) * 64);
  for (auto _ : state) {
    char* end = names.data();
    DIR* const directory = opendir(scratch.path().c_str());
    while (const struct dirent* const entry = readdir(directory)) {
      end = stpcpy(end, entry->d_name) + 1;
    }
    closedir(directory);
    for (const char* name = names.data(); name != end; name += std::strlen(name) + 1) {
      char path[PATH_MAX];
      struct stat status = {};
      static_cast<void>(std::snprintf(path, sizeof path, "%s/%s", scratch.path().c_str(), name));
      benchmark::DoNotOptimize(stat(path, &status));
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// All waiting: each costs a shell and a fuser.
void directory_waiting(benchmark::State& state) {
  const Scratch scratch;
  fill(scratch, state.range(0), 0644);
  LogConsumer engine;
  for (auto _ : state) {
    const std::vector<std::string> files = engine.getFileList(scratch.path());
    if (engine.getNotReadOnlySize(files, scratch.path(), false) != state.range(0)) {
      state.SkipWithError("does not wait");
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

BENCHMARK(directory_sent)->Arg(10)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(bare_walk)->Arg(10)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(directory_waiting)->Arg(10)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
