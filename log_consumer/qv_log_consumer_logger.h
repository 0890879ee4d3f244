// The service's own activity log: one text file, rotated every UTC hour into gzip archives that
// are kept for seven days.
#ifndef LOG_CONSUMER_QV_LOG_CONSUMER_LOGGER_H
#define LOG_CONSUMER_QV_LOG_CONSUMER_LOGGER_H

class LogConsumerLogger {};

#endif
