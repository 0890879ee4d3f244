#include "log_consumer/qv_log_consumer_socket_thread.h"

#include <unistd.h>

LogConsumer::LogConsumer() = default;

LogConsumer::~LogConsumer() = default;

void LogConsumer::terminate() {}

void LogConsumer::sleepSharedSeconds() {
  constexpr useconds_t kMicrosecondsPerSecond = 1'000'000;
  const int seconds = shared_get(&logConsumerSharedStruct::sleepSeconds);
  usleep(static_cast<useconds_t>(seconds) * kMicrosecondsPerSecond);
}
