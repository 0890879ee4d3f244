#include "tools/ppctl/run.h"

int main(int argc, char** argv) {
  return ppctl::run(argc, argv);
}
