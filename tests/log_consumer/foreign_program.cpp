// A program of another tree that links the service's library. It is compiled with its own warnings,
// not with this tree's, which refuse the conversion below, and finds everything that start-up puts
// together in the one header.
#include "log_consumer/qv_log_consumer_main.h"

int main(int argc, char** /*argv*/) {
  const unsigned kinds = argc * 15;
  const LogConsumer* const engine = nullptr;
  const logConsumerProxy connection;
  const auto configuration = &LogConsumerPushpullThreadExecute;
  const bool idle = engine == nullptr && !connection.alive && configuration != nullptr;
  return idle && buildLogTypeTable().size() == kinds ? 0 : 1;
}
