#include "tools/lctimeline/run.h"

int main(int argc, char** argv) {
  return lctimeline::run(argc, argv);
}
