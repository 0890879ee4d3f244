#include "log_consumer/qv_log_consumer_main.h"

int main(int argc, char** argv) {
  return log_consumer_main(argc, argv);
}
