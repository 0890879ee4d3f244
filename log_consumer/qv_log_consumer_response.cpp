#include "log_consumer/qv_log_consumer_response.h"

#include <syslog.h>

#include "log_consumer/qv_log_consumer_socket_thread.h"

namespace {

const char* documentRefusal(JSONNODE* document) {
  JSONNODE_ITERATOR code = json_find(document, "code");
  if (code == json_end(document)) return "Couldn't get return code";
  return json_as_int(*code) == 1 ? nullptr : "Bad code in response";
}

}  // namespace

const char* answerRefusal(const std::string& answer, QvJsonNodePtr& document) {
  const std::string end_of_headers = "\r\n\r\n";
  const std::size_t headers = answer.find(end_of_headers);
  if (headers == std::string::npos || headers == 0) return "Msg body not found in response";
  const std::string body = answer.substr(headers + end_of_headers.size());
  if (json_is_valid(body.c_str()) == 0) return "Json not valid";
  document.reset(json_parse(body.c_str()));
  return document ? documentRefusal(document.get()) : "Couldn't parse JSON";
}

int LogConsumer::parseResponse(const char* recvBuffer) {
  QvJsonNodePtr document;
  const char* const refusal = answerRefusal(recvBuffer, document);
  if (refusal == nullptr) return 0;
  syslog(LOG_INFO, "%s", refusal);
  return 1;
}
