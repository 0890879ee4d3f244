// A program of another tree that links the service's library: it is compiled with its own warnings,
// not with this tree's, which refuse the conversion below.
#include "log_consumer/qv_log_consumer_main.h"

int main(int argc, char** /*argv*/) {
  const unsigned kinds = argc * 15;
  return buildLogTypeTable().size() == kinds ? 0 : 1;
}
