#include "tools/ppctl/failure.h"

#include <system_error>

namespace ppctl {

std::string with_reason(const std::string& text, int error) {
  return text + ": " + std::generic_category().message(error);
}

}  // namespace ppctl
