// In an object of its own, so that a program can bring its own qv_zlibCompress() of either form.
#include "utility/qv_utilities_zlib.h"

int qv_zlibCompress(const std::string& inFileName, const std::string& outFileName) {
  return qv_zlibCompress(inFileName.c_str(), outFileName.c_str());
}
