// The body-level check of a server's answer: LogConsumer::parseResponse without its surroundings.
#ifndef LOG_CONSUMER_QV_LOG_CONSUMER_RESPONSE_H
#define LOG_CONSUMER_QV_LOG_CONSUMER_RESPONSE_H

#include <string>

#include "pushpull_data/qv_json_ptr.h"

/// Judges a whole HTTP answer by its body: a JSON object whose member "code" is, as an integer, 1.
/// Status line and headers are not looked at: an answer with status 500 can be an acceptance.
/// @param answer  without NULs: what was received ends at the first
/// @param document  takes what was parsed: it is freed when the caller has acted on the judgement
/// @return null for an acceptance, otherwise the reason against it, in the words of the log.
const char* answerRefusal(const std::string& answer, QvJsonNodePtr& document);

#endif
