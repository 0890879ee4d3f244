#include "lab/upload_server/control.h"

#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "lab/support/record.h"

namespace lab {
namespace {

using Json = nlohmann::ordered_json;

unsigned times_of(const Json& command) {
  const auto times = command.find("times");
  if (times == command.end()) return 1;
  constexpr unsigned kMost = 1'000'000;
  if (!times->is_number_unsigned() || times->get<std::uint64_t>() > kMost) {
    throw std::invalid_argument("member times has an unusable value");
  }
  return times->get<unsigned>();
}

Json report_of(const UploadServer& server) {
  Json uploads = Json::array();
  for (const UploadReport& report : server.reports())
    uploads.push_back(to_json(report));
  return {{"ok", true},
          {"connections_accepted", server.connections_accepted()},
          {"connections_open", server.connections_open()},
          {"uploads", std::move(uploads)}};
}

using Action = std::function<Json(UploadServer&)>;

Action telling(std::function<void(UploadServer&)> effect) {
  return [effect = std::move(effect)](UploadServer& server) {
    effect(server);
    return Json({{"ok", true}});
  };
}

// Throws std::invalid_argument for what is no command.
Action action_of(const Json& command) {
  const Json name = command.is_object() ? command.value("do", Json()) : Json();
  if (name == "report") return report_of;
  if (name == "reply") {
    return telling([reply = reply_from_json(command), times = times_of(command)](
                       UploadServer& server) { server.script(reply, times); });
  }
  if (name == "default") {
    return telling([reply = reply_from_json(command)](UploadServer& server) {
      server.set_default_reply(reply);
    });
  }
  if (name == "refuse") {
    return telling(
        [times = times_of(command)](UploadServer& server) { server.refuse_connections(times); });
  }
  if (name == "clear") return telling(&UploadServer::clear_script);
  if (name == "pause") return telling(&UploadServer::pause);
  if (name == "resume") return telling(&UploadServer::resume);
  if (name == "drop") return telling(&UploadServer::drop_connections);
  throw std::invalid_argument("no such command");
}

}  // namespace

std::string control(UploadServer& server, const std::string& line) {
  try {
    return json_line(action_of(Json::parse(line))(server));
  } catch (const std::exception& error) {
    return json_line({{"ok", false}, {"error", error.what()}});
  }
}

void check_command(const std::string& line) {
  if (!Json::accept(line)) throw std::invalid_argument("no JSON");
  action_of(Json::parse(line));
}

}  // namespace lab
