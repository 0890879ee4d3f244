#include <algorithm>
#include <functional>
#include <nlohmann/json.hpp>
#include <set>

#include "pushpull_data/qv_pushpull_api.h"
#include "tools/ppctl/documents.h"
#include "tools/ppctl/input.h"
#include "tools/ppctl/requests.h"

namespace ppctl {

namespace {

/// Asks for a node and hands out each document that holds it. That is one, but the whole tree comes
/// as several, and none twice.
/// @throws Failure kNoSuchNode; kOwnTrouble when parts of the whole tree may have been lost, behind
/// those that came: their names are not known, so they cannot be asked for singly
void fetch(Session& session, const std::string& path_text,
           const std::function<void(const Json& document, const Json& node)>& take) {
  const Path path = parse_path(path_text);
  bool is_found = path.empty();
  std::set<std::string> taken;  // an answer to what the session asks for itself may hold one again
  session.open_replies();
  session.request({"get", path_text});
  session.await_served([&](const std::string& message) {
    const Json answer = read_message(message);
    const Json* const node = answer.is_object() ? find_node(answer, path) : nullptr;
    if (node == nullptr || !taken.insert(message).second) return false;
    take(answer, *node);
    is_found = true;
    return !path.empty();
  });
  if (!is_found) {
    throw Failure(Status::kNoSuchNode,
                  "no such node: " + path_text + " (or its answer is longer than " +
                      std::to_string(session.message_size()) + " bytes: see --message-size)");
  }
  if (path.empty() && session.was_full()) {
    throw Failure(Status::kOwnTrouble,
                  "nodes may be missing: the reply queue was full, and the store drops what does "
                  "not fit; get each node by its own path");
  }
}

std::string raw_text(const Json& node) {
  return node.is_string() ? node.get<std::string>() : write_json(node, Layout::kCompact);
}

void publish(const Context& context, const Json& document) {
  Session session(context.options, context.events);
  carry_out(context, session, {"publish", write_json(document, Layout::kCompact)});
}

std::int32_t id_for_delete(const Options& options) {
  const auto id = static_cast<eQV_CMP_IDs_>(options.id.value_or(QV_CMPID_DELETE_AUTHORITY_LAST));
  if (QvPushpullApi().check_delete_authority(id) == 0) return id;
  throw Failure(Status::kUsage, "only the ids 0x40000003 to 0x40000007 may delete");
}

/// Sends the request about a node that must exist, unless nobody is to wait for answers.
void act_on_node(const Context& context, Session& session, const Request& request) {
  if (!context.options.no_wait) fetch(session, request.buffer, [](const Json&, const Json&) {});
  carry_out(context, session, request);
}

}  // namespace

Status run_get(const Context& context) {
  const std::string& path_text = context.options.arguments[0];
  parse_path(path_text);
  Session session(context.options, context.events);
  fetch(session, path_text, [&context](const Json& document, const Json& node) {
    if (context.options.raw) {
      context.output.text(raw_text(node) + "\n");
    } else {
      context.output.document(document);
    }
  });
  return Status::kDone;
}

Status run_set(const Context& context) {
  const auto& arguments = context.options.arguments;
  const Path path = parse_node_path(arguments[0]);
  if (std::any_of(path.begin(), path.end(), is_index)) {
    throw Failure(Status::kUsage, "path \"" + arguments[0] +
                                      "\": set does not reach into arrays, which are stored whole: "
                                      "publish the array");
  }
  const Json document = nest(path, parse_value(arguments[1], context.options.string));
  // Path and value together may be too deep for the store.
  publish(context, parse_document(write_json(document, Layout::kCompact), "the document"));
  return Status::kDone;
}

Status run_publish(const Context& context) {
  const auto& arguments = context.options.arguments;
  const std::string file = arguments.empty() ? "-" : arguments[0];
  publish(context, parse_document(read_input(context.events, file), input_name(file)));
  return Status::kDone;
}

Status run_clear(const Context& context) {
  const std::string& path_text = context.options.arguments[0];
  parse_node_path(path_text);
  Session session(context.options, context.events);
  act_on_node(context, session, {"clear", path_text});
  return Status::kDone;
}

Status run_delete(const Context& context) {
  const std::string& path_text = context.options.arguments[0];
  parse_node_path(path_text);
  Request request = {"delete", path_text};
  request.from = id_for_delete(context.options);
  // The component whose id it is may be running: its registration is left alone.
  Options options = context.options;
  options.id.reset();
  Session session(options, context.events);
  act_on_node(context, session, request);
  return Status::kDone;
}

}  // namespace ppctl
