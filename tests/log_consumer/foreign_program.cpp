// A program of another tree that links the service's library. It is compiled with its own warnings,
// not with this tree's, which refuse the conversion below, and finds everything that start-up puts
// together in the one header.
#include <type_traits>

#include "log_consumer/qv_log_consumer_main.h"

// The globals are objects, as a program that declares them itself would have them.
static_assert(std::is_same_v<decltype(logConsumerShared), logConsumerSharedStruct>);
static_assert(
    std::is_same_v<decltype(dataUploadServer), std::shared_ptr<LogConsumerMongooseClass>>);
static_assert(std::is_same_v<decltype(relayServer), std::shared_ptr<LogConsumerMongooseClass>>);

int main(int argc, char** /*argv*/) {
  const unsigned kinds = argc * 15;
  const LogConsumer* const engine = nullptr;
  const logConsumerProxy connection;
  const auto configuration = &LogConsumerPushpullThreadExecute;
  const bool idle = engine == nullptr && !connection.alive && configuration != nullptr;
  return idle && buildLogTypeTable().size() == kinds ? 0 : 1;
}
