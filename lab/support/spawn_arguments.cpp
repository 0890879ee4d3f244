#include "lab/support/spawn_arguments.h"

#include <unistd.h>

#include <algorithm>

namespace lab {

std::vector<std::string> environment_with(const std::vector<std::string>& additions) {
  std::vector<std::string> result = additions;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const std::string name = text.substr(0, text.find('=') + 1);
    const bool replaced =
        std::any_of(additions.begin(), additions.end(), [&name](const std::string& addition) {
          return addition.compare(0, name.size(), name) == 0;
        });
    if (!replaced) result.push_back(text);
  }
  return result;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  result.reserve(texts.size() + 1);
  for (std::string& text : texts)
    result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace lab
