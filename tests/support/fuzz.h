// For fuzz targets: what they define, and how they find fault.
#ifndef TESTS_SUPPORT_FUZZ_H
#define TESTS_SUPPORT_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

/// Defined by each fuzz target: feeds one input of any bytes. Returns 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace test_support {

inline std::string fuzz_text(const std::uint8_t* data, std::size_t size) {
  return std::string(data, data + size);
}

/// Ends the run, which keeps the input, when something that must hold does not.
inline void must_hold(bool condition, const char* what) {
  if (condition) return;
  std::cerr << "does not hold: " << what << '\n';
  std::abort();
}

}  // namespace test_support

#endif
