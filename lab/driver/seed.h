// Puts logs where producers put them: such as are to be sent, and such as must not be.
#ifndef LAB_DRIVER_SEED_H
#define LAB_DRIVER_SEED_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "lab/driver/kinds.h"

namespace lab {

/// One file in a log directory.
struct SeededFile {
  Kind kind;
  std::string path;
  std::string bytes;
  mode_t mode = 0644;
  std::string why_not;  ///< why it must not be sent; empty: it is to be sent
};

struct SeedSettings {
  std::vector<std::string> kinds;      ///< names; empty: all
  std::vector<std::string> own_files;  ///< copied into `own_kind`, to be sent
  std::string own_kind = "Debug";
  bool examples = true;  ///< one log of each kind, one more that is held open, and the odd ones
};

/// Makes the kinds' directories and writes the files. The one whose name begins with "held_open"
/// is to be sent once nobody holds it open any more.
/// @throws std::runtime_error naming a path or a kind
std::vector<SeededFile> seed(const SeedSettings& settings);

/// `text` as a gzip file.
std::string gzip(const std::string& text);

}  // namespace lab

#endif
