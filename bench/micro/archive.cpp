// An activity log becomes a gzip archive: against the command that does the same.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>

#include "bench/micro/scratch.h"
#include "utility/qv_utilities_zlib.h"

namespace {

// As the activity log writes it: a header, a size, a response, again and again.
std::string activity_log(std::size_t size) {
  std::string text = "Log Consumer log file time 2026_2_3_9_5";
  for (unsigned number = 0; text.size() < size; ++number) {
    text += "POST /v1/Upload HTTP/1.1\r\nHost: logs.example.com\r\nContent-Length: " +
            std::to_string(10'000 + number * 7919U % 90'000U) +
            "\r\nAccept: */*\r\n"
            "Content-Type: multipart/form-data;boundary=acebdf13572468\r\n\r\n\n"
            "Logged filesize: " +
            std::to_string(9'500 + number * 7919U % 90'000U) + "\nLogged response: Send passed\n";
  }
  return text;
}

constexpr std::size_t kLogBytes = std::size_t{4} * 1024 * 1024;

void archive(benchmark::State& state) {
  const Scratch scratch;
  scratch.write("log", activity_log(kLogBytes));
  const std::string log = scratch.path() + "/log";
  for (auto _ : state) {
    if (qv_zlibCompress(log, log + ".gz") != 0) state.SkipWithError("not compressed");
  }
}

void gzip_command(benchmark::State& state) {
  const Scratch scratch;
  scratch.write("log", activity_log(kLogBytes));
  const std::string command =
      "gzip -6 -c " + scratch.path() + "/log > " + scratch.path() + "/log.gz";
  for (auto _ : state) {
    if (std::system(command.c_str()) != 0) state.SkipWithError("not compressed");
  }
}

BENCHMARK(archive)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(gzip_command)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
