#include <nlohmann/json.hpp>

#include <string>

#include "tools/ppctl/documents.h"
#include "tools/ppctl/failure.h"
#include "tools/ppctl/requests.h"

namespace ppctl {

void carry_out(const Context& context, Session& session, const Request& request,
               const Session::Handler& handler) {
  if (!context.options.no_wait) session.open_replies();
  session.request(request);
  if (context.options.no_wait) return;
  session.await_served(handler, "sent, but ");
}

Status run_save(const Context& context) {
  Session session(context.options, context.events);
  carry_out(context, session, {context.options.debug ? "save_debug" : "save", ""});
  return Status::kDone;
}

namespace {

// The store will drop it without a word.
void note_no_document(const Context& context, const std::string& buffer) try {
  parse_document(buffer, "BUFFER");
} catch (const Failure& fault) {
  context.output.note(std::string(fault.what()) + "; sent as it is");
}

}  // namespace

Status run_sync(const Context& context) {
  const auto& arguments = context.options.arguments;
  Request request = {"sync", arguments.size() > 1 ? arguments[1] : ""};
  request.to = parse_id(arguments[0]);
  check_utf8(request.buffer, "TEXT");
  Session session(context.options, context.events);
  carry_out(context, session, request);
  return Status::kDone;
}

Status run_send(const Context& context) {
  const Options& options = context.options;
  Request request = {options.arguments[0],
                     options.arguments.size() > 1 ? options.arguments[1] : ""};
  request.to = options.to;
  request.notify_on_change_only = options.changes_only;
  request.pack_and_send = options.pack;
  request.sender = options.sender;
  check_utf8(request.function, "FUNCTION");
  check_utf8(request.buffer, "BUFFER");
  check_utf8(request.sender, "the sender");
  if (request.function == "publish") note_no_document(context, request.buffer);
  Session session(options, context.events);
  carry_out(context, session, request, [&context](const std::string& message) {
    context.output.document(read_message(message));
    return false;
  });
  if (session.was_full()) context.output.note(kMayBeLost);
  return Status::kDone;
}

}  // namespace ppctl
