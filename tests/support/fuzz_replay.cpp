// Runs a fuzz target without libFuzzer: every file of its corpus, then a fixed number of inputs
// derived from those that are no longer than 4 KiB. The same inputs on every machine and in every
// run.
//
//   NAME CORPUS_FOLDER [COUNT]     COUNT derived inputs, 100000 if not given
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/fuzz.h"

namespace {

using namespace std::string_literals;

constexpr std::size_t kLargestInput = 4096;

/// Numbers and choices from a generator whose sequence the language standard fixes.
class Chance {
 public:
  std::size_t below(std::size_t limit) { return limit == 0 ? 0 : generator_() % limit; }
  char byte() {
    // What gives structure to the texts that this system reads, so that mutants get past a first
    // look.
    static const std::string telling = "{}[]\",:\\/+-.eE0123456789 \t\r\n\0\x7f\x80\xc3\xff"s;
    return below(2) == 0 ? telling[below(telling.size())] : static_cast<char>(below(256));
  }

 private:
  std::mt19937 generator_{20'240'229};
};

void mutate_once(std::string& input, const std::vector<std::string>& seeds, Chance& chance) {
  const std::size_t at = chance.below(input.size() + 1);
  const std::size_t length = chance.below(std::min<std::size_t>(input.size() - at, 32) + 1);
  switch (chance.below(6)) {
    case 0:
      if (at < input.size()) input[at] = chance.byte();
      break;
    case 1:
      input.insert(at, 1, chance.byte());
      break;
    case 2:
      input.erase(at, length);
      break;
    case 3:  // repeat a piece
      for (std::size_t i = chance.below(8); i > 0; --i)
        input.insert(at, input.substr(at, length));
      break;
    case 4: {  // a piece of another input
      const std::string& other = seeds[chance.below(seeds.size())];
      input.insert(at, other.substr(chance.below(other.size() + 1), 1 + chance.below(64)));
      break;
    }
    default:
      if (chance.below(4) == 0) input.resize(at);
  }
}

std::vector<std::string> read_corpus(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> paths;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  std::vector<std::string> inputs;
  for (const auto& path : paths) {
    std::ostringstream input;
    input << std::ifstream(path, std::ios::binary).rdbuf();
    inputs.push_back(input.str());
  }
  return inputs;
}

void run(const std::string& input) {
  const std::vector<std::uint8_t> bytes(input.begin(), input.end());  // exact size, no NUL behind
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

bool is_long(const std::string& input) {
  return input.size() > kLargestInput;
}

int replay(const std::filesystem::path& folder, long count) {
  std::vector<std::string> seeds = read_corpus(folder);
  if (seeds.empty()) {
    std::cerr << "no inputs in " << folder << '\n';
    return 1;
  }
  for (const std::string& seed : seeds)
    run(seed);
  const std::size_t inputs = seeds.size();
  // Long ones are there to reach a limit of size, which nothing as short as a derived one does.
  seeds.erase(std::remove_if(seeds.begin(), seeds.end(), is_long), seeds.end());
  Chance chance;
  for (long i = 0; i < count; ++i) {
    std::string input = seeds[chance.below(seeds.size())];
    for (std::size_t step = 1 + chance.below(8); step > 0; --step) {
      mutate_once(input, seeds, chance);
    }
    input.resize(std::min(input.size(), kLargestInput));
    run(input);
  }
  std::cout << inputs << " inputs of the corpus and " << count << " derived ones\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: " << argv[0] << " CORPUS_FOLDER [COUNT]\n";
    return 2;
  }
  try {
    return replay(argv[1], argc > 2 ? std::strtol(argv[2], nullptr, 10) : 100'000);
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
  }
}
