// The kinds of logs that a device writes, as producers and servers know them.
#ifndef LAB_DRIVER_KINDS_H
#define LAB_DRIVER_KINDS_H

#include <string>
#include <vector>

namespace lab {

struct Kind {
  std::string name;       ///< as the servers know it: form field LogType
  std::string directory;  ///< where producers put it
  std::string example;    ///< what a producer calls such a log, without ".gz"
  bool relayed;           ///< arrives raw at the relay server
};

/// All kinds that have a directory, in the order in which the service serves them.
const std::vector<Kind>& all_kinds();

/// @return the kind of that name; nullptr when there is none
const Kind* find_kind(const std::string& name);

/// The names of all kinds, each with a blank before it.
std::string kind_names();

/// The kind whose directory no device has; shown, never seeded.
inline constexpr char kKindWithoutDirectory[] = "Test";
inline constexpr char kDirectoryOfNoDevice[] = R"(\nuv\logs\test\)";

}  // namespace lab

#endif
