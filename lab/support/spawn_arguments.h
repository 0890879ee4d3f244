// What posix_spawn() and its like take: pointers to texts, ended by a null.
#ifndef LAB_SUPPORT_SPAWN_ARGUMENTS_H
#define LAB_SUPPORT_SPAWN_ARGUMENTS_H

#include <string>
#include <vector>

namespace lab {

/// @return this process's environment with the additions ("NAME=value"), which replace what has the
/// same name. Not to be called while another thread changes the environment.
std::vector<std::string> environment_with(const std::vector<std::string>& additions);

/// @return pointers into `texts`, which has to outlive them, and a null behind them.
std::vector<char*> pointers(std::vector<std::string>& texts);

}  // namespace lab

#endif
